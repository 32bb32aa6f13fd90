// The fault matrix: the configurator, under the simulated driver, with the
// example tuning set, and one fault per run: a driver request refused at one
// of its occurrences, or configurator.cfg or one tuning file missing, empty,
// truncated, a directory or unreadable.
//
// The expected run is not written out per case: FaultModel walks the
// configurator's steps once, deciding at each request by the driver's
// answer and at each file by what kind of file it is, and yields the
// requests, their answers, the outcome log lines and the uploads. Every run
// must end with exit status 0 and no sanitizer or simulator complaint.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <google/protobuf/text_format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>

#include "configurator.pb.h"
#include "configurator/korva_driver.h"
#include "configurator/payload.h"
#include "configurator/settings.h"
#include "configurator/tuning_reader.h"
#include "e2e_support.h"
#include "qvrcsPB.pb.h"

namespace {

namespace fs = std::filesystem;
using com::qvr::korva::configurator::qdsp6::ConfiguratorConfig;
using com::qvr::korva::configurator::qdsp6::SettingsSet;
using e2e::Format;
using testing::ElementsAreArray;
using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

constexpr const char* kVersion = "KQ6 fault-matrix";
constexpr const char* kDescription = "Korva DSP under fault injection";

// The slot whose tuning file is damaged in the file cases: one in the
// middle, so that slots before and after it show they are unaffected.
constexpr size_t kDamagedSlot = 2;

// ---- The faults ------------------------------------------------------------------

// A driver request answered `value` at its `occurrence`-th arrival, given to
// the simulator as --answer REQUEST#N=VALUE (a negative value reaches the
// configurator as -1 with errno set to its magnitude).
struct RequestFault {
  std::string request;
  uint32_t occurrence = 0;
  int64_t value = 0;
};

// (A file without read permission fails as a socket does, and root reads it
// anyway: the socket stands for both.)
enum class FileKind { kMissing, kEmpty, kTruncated, kDirectory, kSocket };
enum class FileRole { kConfig, kTuning };

struct FileFault {
  FileRole role;
  FileKind kind;
};

struct Case {
  std::string name;
  std::optional<RequestFault> request;
  std::optional<FileFault> file;
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

// Whether the configurator takes `answer` to `request` for a refusal.
bool AnswerFails(const std::string& request, int64_t answer) {
  for (const QvrKorvaRequest& known : kQvrKorvaRequests) {
    if (request == known.name) return qvr_answer_refused(known.code, answer);
  }
  ADD_FAILURE() << "unknown request " << request;
  return true;
}

// The answer the configurator sees for a simulator --answer value.
int64_t SeenAnswer(int64_t value) { return value < 0 ? -1 : value; }

// How each kind of file reaches the program: whether open() gives a
// descriptor (a directory opens; a socket never does, not even for root),
// and whether what is read parses.
bool Opens(FileKind kind) {
  return kind == FileKind::kEmpty || kind == FileKind::kTruncated || kind == FileKind::kDirectory;
}

// ---- The example tuning set --------------------------------------------------------

ConfiguratorConfig ExampleConfig() {
  ConfiguratorConfig config;
  const std::string text = e2e::ReadFile(std::string(QVR_EXAMPLES_DIR) + "/" + qvr::kConfigFileName);
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &config));
  return config;
}

std::vector<SettingsSet> ExampleSlots() {
  const ConfiguratorConfig config = ExampleConfig();
  return {config.attached0(),  config.attached1(), config.lineout0(),
          config.bluetooth0(), config.combo0(),    config.other()};
}

// ---- The model -----------------------------------------------------------------------

struct ExpectedRequest {
  std::string name;
  int64_t answer = 0;  // as the configurator sees it
  int error = 0;
};

struct ExpectedRun {
  std::vector<ExpectedRequest> requests;
  Lines outcomes;                   // the outcome lines of the log, in order
  std::vector<size_t> uploadSlots;  // slot of each upload, in order
  std::vector<bool> zeroPayload;    // per upload: the reader wrote nothing
};

// Log lines that tell an outcome (results and errors); the others narrate.
bool IsOutcomeLine(const std::string& line) {
  static const char* const kPrefixes[] = {
      "Korva DSP",         "Error",        "Success",          "After setting driver cache size",
      "Couldn't open",     "***",          "QVRCS_GetPremixData() returns",
      "ioctl(QVR_KORVA_IOCTL_SET_PARAM)", "load_one_qvrcs_set() returns", "load_settings() returns"};
  for (const char* prefix : kPrefixes) {
    if (line.rfind(prefix, 0) == 0) return true;
  }
  return false;
}

class FaultModel {
 public:
  FaultModel(const Case& c, std::string searchPath, std::vector<SettingsSet> slots, int fd)
      : case_(c), stored_("/" + std::move(searchPath)), slots_(std::move(slots)), fd_(fd) {}

  ExpectedRun Walk() {
    // main: version queries, volume controls.
    Outcome(Ask("GET_PARAM") < 0 ? Format("Error %d querying driver for version number", last_)
                                 : std::string("Korva DSP Version = ") + kVersion);
    Outcome(Ask("GET_PARAM") < 0 ? Format("Error %d querying driver for version description", last_)
                                 : std::string("Korva DSP Description = \n") + kDescription);
    Outcome(Ask("SET_VOLUME_CONTROLS") < 0 ? "Error setting volume controls."
                                           : "Success setting volume controls.");
    const int32_t settings = LoadSettings();
    Outcome(Format("load_settings() returns %d.", settings));
    Outcome(settings < 0 ? "Error setting parameters." : "Success setting parameters.");
    return run_;
  }

 private:
  int32_t LoadSettings() {
    if (Ask("SET_CACHE_SIZE") != 0) {
      Outcome(CacheSizeLine(qvr::kResultDriverRefused));
      return qvr::kResultDriverRefused;
    }
    Outcome(CacheSizeLine(last_));

    const std::string configPath = stored_ + "/" + qvr::kConfigFileName;
    if (const std::optional<FileKind> kind = Damaged(FileRole::kConfig)) {
      if (!Opens(*kind)) {
        Outcome("Couldn't open config file " + configPath);
        return qvr::kResultNoFile;
      }
      // Empty or cut short, a required field is missing; a directory reads nothing.
      Outcome("*** Error parsing ConfiguratorConfig protocol buffer ***");
      return qvr::kResultBadConfig;
    }

    int32_t results = 0;
    for (size_t i = 0; i < slots_.size(); ++i) results |= LoadSlot(i);
    return results != 0 ? qvr::kResultSlotFailed : qvr::kResultOk;
  }

  int32_t LoadSlot(size_t i) {
    int32_t result = 0;
    if (Ask("SET_CACHE_BLOCK") != 0) {
      result = qvr::kResultDriverRefused;
    } else {
      const std::string path = stored_ + "/" + slots_[i].filename();
      const std::optional<FileKind> kind = i == kDamagedSlot ? Damaged(FileRole::kTuning) : std::nullopt;
      int32_t reader = 0;
      if (kind && !Opens(*kind)) {
        Outcome("Error: could not open " + path);
        reader = qvr::kResultNoFile;
      } else if (kind == FileKind::kEmpty) {
        // An empty file parses, as a tuning file without a workspace.
        Outcome("Error: " + path + " has no workspace");
        reader = qvr::kResultNoFile;
      }
      Outcome(Format("QVRCS_GetPremixData() returns %d", reader));
      if (reader != 0) {
        result = reader;
      } else {
        // A truncated file or a directory does not parse: the reader writes
        // nothing and the zero-filled payload is uploaded.
        run_.uploadSlots.push_back(i);
        run_.zeroPayload.push_back(kind.has_value());
        const int64_t answer = Ask("SET_PARAM");
        Outcome(Format("ioctl(QVR_KORVA_IOCTL_SET_PARAM) returns %d", static_cast<int>(answer)));
        result = AnswerFails("SET_PARAM", answer) ? qvr::kResultDriverRefused : qvr::kResultOk;
      }
    }
    Outcome(Format("load_one_qvrcs_set() returns %d", result));
    return result;
  }

  // Sends `request`; returns the answer the configurator sees, normalised so
  // that a failed request reads negative or non-zero as its rule says.
  int64_t Ask(const std::string& request) {
    const uint32_t occurrence = ++occurrences_[request];
    ExpectedRequest sent{request, 0, 0};
    if (case_.request && case_.request->request == request && case_.request->occurrence == occurrence) {
      sent.answer = SeenAnswer(case_.request->value);
      sent.error = case_.request->value < 0 ? static_cast<int>(-case_.request->value) : 0;
    }
    run_.requests.push_back(sent);
    last_ = static_cast<int>(sent.answer);
    if (request == "GET_PARAM" || request == "SET_VOLUME_CONTROLS") {
      return AnswerFails(request, sent.answer) ? -1 : 0;
    }
    return sent.answer;
  }

  std::string CacheSizeLine(int32_t retval) const {
    return Format("After setting driver cache size:  g_fd = %d  cacheSize = %d  retval = %d", fd_,
                  qvr::kDriverCacheSize, retval);
  }

  std::optional<FileKind> Damaged(FileRole role) const {
    if (case_.file && case_.file->role == role) return case_.file->kind;
    return std::nullopt;
  }

  void Outcome(const std::string& line) { run_.outcomes.push_back(line); }

  const Case& case_;
  const std::string stored_;
  const std::vector<SettingsSet> slots_;
  const int fd_;
  std::map<std::string, uint32_t> occurrences_;
  int last_ = 0;  // the last answer, as the configurator sees it
  ExpectedRun run_;
};

// ---- The cases -------------------------------------------------------------------------

// Every request at each of its occurrences in a full run, answered with a
// negative errno and with a positive value.
std::vector<Case> RequestCases() {
  const std::pair<const char*, size_t> kOccurrences[] = {
      {"GET_PARAM", 2},
      {"SET_VOLUME_CONTROLS", 1},
      {"SET_CACHE_SIZE", 1},
      {"SET_CACHE_BLOCK", qvr::kCacheBlockCount},
      {"SET_PARAM", qvr::kCacheBlockCount},
  };
  const std::pair<int64_t, const char*> kValues[] = {{-EIO, "EIO"}, {-ENOMEM, "ENOMEM"}, {3, "3"}};
  std::vector<Case> cases;
  for (const auto& [request, count] : kOccurrences) {
    for (uint32_t n = 1; n <= count; ++n) {
      for (const auto& [value, label] : kValues) {
        // Two errnos only where the errno could matter: once per request is enough.
        if (value == -ENOMEM && n != 1) continue;
        Case c;
        c.name = Format("%s_%u_answers_%s", request, n, label);
        c.request = RequestFault{request, n, value};
        cases.push_back(c);
      }
    }
  }
  return cases;
}

std::vector<Case> FileCases() {
  const std::pair<FileKind, const char*> kKinds[] = {
      {FileKind::kMissing, "missing"},       {FileKind::kEmpty, "empty"},     {FileKind::kTruncated, "truncated"},
      {FileKind::kDirectory, "a_directory"}, {FileKind::kSocket, "a_socket"},
  };
  std::vector<Case> cases;
  for (const auto& [role, label] : {std::pair{FileRole::kConfig, "config"},
                                    std::pair{FileRole::kTuning, "tuning_file"}}) {
    for (const auto& [kind, what] : kKinds) {
      Case c;
      c.name = Format("%s_%s", label, what);
      c.file = FileFault{role, kind};
      cases.push_back(c);
    }
  }
  return cases;
}

// ---- The test ------------------------------------------------------------------------

class FaultMatrixTest : public e2e::E2eTest, public testing::WithParamInterface<Case> {
 protected:
  void SetUp() override {
    E2eTest::SetUp();
    searchPath_ = dir() + "/tuning";
    ASSERT_TRUE(fs::create_directory(searchPath_));
    slots_ = ExampleSlots();
    fs::copy_file(std::string(QVR_EXAMPLES_DIR) + "/" + qvr::kConfigFileName,
                  searchPath_ + "/" + qvr::kConfigFileName);
    for (const SettingsSet& slot : slots_) {
      fs::copy_file(std::string(QVR_EXAMPLES_DIR) + "/" + slot.filename(), searchPath_ + "/" + slot.filename(),
                    fs::copy_options::skip_existing);
    }
  }

  // Puts the damage of `fault` in place.
  void Damage(const FileFault& fault) {
    const std::string damaged =
        searchPath_ + "/" +
        (fault.role == FileRole::kConfig ? std::string(qvr::kConfigFileName) : slots_[kDamagedSlot].filename());
    const std::string original = e2e::ReadFile(damaged);
    fs::remove(damaged);
    switch (fault.kind) {
      case FileKind::kMissing:
        break;
      case FileKind::kEmpty:
        e2e::WriteFile(damaged, "");
        break;
      case FileKind::kTruncated: {
        // Cut in the middle of the last record, so that the file no longer
        // parses at all.
        const std::string cut = original.substr(0, original.size() / 2);
        e2e::WriteFile(damaged, cut);
        if (fault.role == FileRole::kTuning) {
          com::qvr::pb::wbn::Qvrcs message;
          EXPECT_FALSE(message.ParseFromString(cut)) << "the truncated tuning file still parses";
        }
        break;
      }
      case FileKind::kDirectory:
        fs::create_directory(damaged);
        break;
      case FileKind::kSocket: {
        // open() on a socket fails (ENXIO) for every user.
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        EXPECT_LT(damaged.size(), sizeof address.sun_path) << "socket path too long";
        damaged.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << std::strerror(errno);
        close(fd);
        break;
      }
    }
  }

  // The payload the reader makes of slot `i`'s (undamaged) file.
  Bytes Payload(size_t i) const {
    Bytes payload(qvr::kCacheBlockSize, 0);
    EXPECT_EQ(QVRCS_GetPremixData((searchPath_ + "/" + slots_[i].filename()).c_str(), payload.data()), 0);
    return payload;
  }

  std::string searchPath_;
  std::vector<SettingsSet> slots_;
};

TEST_P(FaultMatrixTest, RunEndsAsTheRulesSay) {
  const Case& c = GetParam();
  std::vector<std::string> options = {"--dsp-version", kVersion, "--dsp-description", kDescription};
  if (c.request) {
    options.push_back("--answer");
    options.push_back(Format("%s#%u=%lld", c.request->request.c_str(), c.request->occurrence,
                             static_cast<long long>(c.request->value)));
  }
  if (c.file) Damage(*c.file);

  const e2e::RunResult run = RunConfigurator(options, {searchPath_});

  // Never a crash, never a complaint from a sanitizer or the simulator.
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.err, testing::Not(testing::HasSubstr("ERROR: AddressSanitizer")));
  EXPECT_THAT(run.err, testing::Not(testing::HasSubstr("runtime error:")));
  EXPECT_THAT(run.err, testing::Not(testing::HasSubstr("korva-driver-sim:")));

  const ExpectedRun expected = FaultModel(c, searchPath_, slots_, run.Handle()).Walk();
  Lines outcomes;
  for (const std::string& line : run.log) {
    if (IsOutcomeLine(line)) outcomes.push_back(line);
  }
  EXPECT_THAT(outcomes, ElementsAreArray(expected.outcomes));

  ASSERT_EQ(run.requests.size(), expected.requests.size());
  for (size_t i = 0; i < run.requests.size(); ++i) {
    SCOPED_TRACE(Format("request %zu", i + 1));
    EXPECT_EQ(run.requests[i].name, expected.requests[i].name);
    EXPECT_EQ(run.requests[i].answer, expected.requests[i].answer);
    EXPECT_EQ(run.requests[i].error, expected.requests[i].error);
  }

  // Each upload carries its own slot's payload, untouched by the fault.
  const std::vector<e2e::Request> uploads = run.Of("SET_PARAM");
  ASSERT_EQ(uploads.size(), expected.uploadSlots.size());
  for (size_t u = 0; u < uploads.size(); ++u) {
    const size_t slot = expected.uploadSlots[u];
    SCOPED_TRACE(Format("upload %zu, slot %zu", u + 1, slot));
    ASSERT_EQ(uploads[u].arg.size(), sizeof(qvr_korva_upload));
    const Bytes payload(uploads[u].arg.begin() + sizeof(qvr_korva_param_desc), uploads[u].arg.end());
    EXPECT_TRUE(payload == (expected.zeroPayload[u] ? Bytes(qvr::kCacheBlockSize, 0) : Payload(slot)));
  }
}

std::string CaseName(const testing::TestParamInfo<Case>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(RefusedRequest, FaultMatrixTest, testing::ValuesIn(RequestCases()), CaseName);
INSTANTIATE_TEST_SUITE_P(DamagedFile, FaultMatrixTest, testing::ValuesIn(FileCases()), CaseName);

}  // namespace
