// qvr_configurator end to end: the real binary under korva-driver-sim, with
// tuning files written here. Each test checks the exact log, the standard
// output, the exit status and the bytes of the requests the driver received.
// Refused requests and damaged files, one at a time, are the fault matrix's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>

#include "configurator/payload.h"
#include "configurator/tuning_reader.h"
#include "e2e_support.h"

namespace {

namespace fs = std::filesystem;
using e2e::Format;
using e2e::ReadFile;
using e2e::RunResult;
using e2e::Words;
using e2e::WriteFile;
using qvr_test::Bytes;
using qvr_test::KorvaSettings;
using qvr_test::Lines;
using testing::ElementsAreArray;

constexpr const char* kVersion = "KQ6 2.4.1-test";
constexpr const char* kDescription = "Korva test DSP\nrev B";

// Requests of a run that reaches the slots, before the first slot.
const Lines kStartRequests = {"GET_PARAM", "GET_PARAM", "SET_VOLUME_CONTROLS", "SET_CACHE_SIZE"};

struct Slot {
  std::string field;  // name in configurator.cfg
  uint32_t bitmask;
};

Lines Names(const RunResult& run) {
  Lines names;
  for (const e2e::Request& request : run.requests) names.push_back(request.name);
  return names;
}

void Append(Lines& lines, const Lines& more) { lines.insert(lines.end(), more.begin(), more.end()); }

std::string CacheBlockLine(uint32_t index, uint32_t bitmask) {
  return Format(
      "[0]idx=%u  [1]bitmask=0x%X  [2]kGlobalOffset=%u  [3]preCmd=0x10015100  [4]preSize=156  "
      "[5]preOff=156  [6]fadeCmd=0x0  [7]fadeSize=20  [8]postOff=176  [9]postCmd=0x1001522c  "
      "[10]postSize=61468  [11]fadeOff=61644  [12]fadeCmd=0x0  [13]fadeSize=20",
      index, bitmask, index * 61664);
}

class ConfiguratorTest : public e2e::E2eTest {
 protected:
  void SetUp() override {
    E2eTest::SetUp();
    tuningDir_ = dir() + "/tuning";
    ASSERT_TRUE(fs::create_directory(tuningDir_));
  }

  // Six tuning files whose settings differ per slot, and a configurator.cfg naming them.
  void WriteTuningSet() {
    std::string config;
    for (size_t i = 0; i < slots_.size(); ++i) {
      KorvaSettings settings;
      const int seed = static_cast<int>(i);
      settings.mutable_premix()->set_stream_gain(1000 + seed);
      settings.mutable_premix()->mutable_dravo()->set_input_gain(-seed);
      settings.mutable_postmix()->set_postmix_gain(-200 - seed);
      e2e::WriteFile(TuningPath(i), qvr_test::TuningWith(settings).SerializeAsString());
      config += Format("%s { filename: '%s.bin' device_bitmask: %u }\n", slots_[i].field.c_str(),
                       slots_[i].field.c_str(), slots_[i].bitmask);
    }
    e2e::WriteFile(tuningDir_ + "/configurator.cfg", config);
  }

  // The path the configurator forms for slot `i`: the search path is rooted at "/".
  std::string TuningPath(size_t i) const { return "/" + tuningDir_ + "/" + slots_[i].field + ".bin"; }

  // The payload the tuning file reader makes of slot `i`'s file.
  Bytes ExpectedPayload(size_t i) const {
    Bytes payload(qvr::kCacheBlockSize, 0);
    EXPECT_EQ(QVRCS_GetPremixData(TuningPath(i).c_str(), payload.data()), 0) << TuningPath(i);
    return payload;
  }

  // The combo slot always carries its device bit.
  uint32_t Bitmask(size_t i) const { return slots_[i].bitmask | (slots_[i].field == "combo0" ? 0x400000u : 0u); }

  RunResult Run(std::vector<std::string> simOptions, const std::vector<std::string>& args) {
    for (const char* option : {"--dsp-version", kVersion, "--dsp-description", kDescription}) {
      simOptions.push_back(option);
    }
    return RunConfigurator(simOptions, args);
  }

  // Log lines from the banner to the volume controls, for a driver that
  // answers every query, opened as handle `fd`.
  static Lines StartLines(const Lines& argumentLines, int fd) {
    Lines lines = {Format("running qvr_configurator (%zu bit): version 2.21 (targeting Korva 1.1)", sizeof(long) * 8)};
    Append(lines, argumentLines);
    Append(lines, {std::string("Korva DSP Version = ") + kVersion,
                   std::string("Korva DSP Description = \n") + kDescription,
                   Format("Korva driver handle %i.", fd), "Success setting volume controls."});
    return lines;
  }

  // Log lines of a run with the tuning directory as its one argument, up to
  // the first slot.
  Lines RunStartLines(int fd) const {
    Lines lines = StartLines({"Using " + tuningDir_ + " as search path"}, fd);
    Append(lines, {"load_settings(/" + tuningDir_ + ")", "Attempting to set driver cache size to 369984",
                   Format("After setting driver cache size:  g_fd = %d  cacheSize = 369984  retval = 0", fd)});
    return lines;
  }

  // Log lines of slot `i` up to its cache block request, then `tail`.
  Lines SlotLines(size_t i, const Lines& tail) const {
    Lines lines = {Format("load_one_qvrcs_set() : qvrcsPath = '%s'  cacheBlockIndex = %zu", TuningPath(i).c_str(), i),
                   "Setting cache block.", CacheBlockLine(static_cast<uint32_t>(i), Bitmask(i))};
    Append(lines, tail);
    return lines;
  }

  // Checks slot `i`'s cache block request and, unless null, its upload.
  void ExpectSlotRequests(const e2e::Request& block, const e2e::Request* upload, size_t i) const {
    const uint32_t index = static_cast<uint32_t>(i);
    EXPECT_EQ(block.arg, Words({index, Bitmask(i), index * 61664, 0x10015100, 156, 156, 0, 20, 176, 0x1001522C,
                                61468, 61644, 0, 20}))
        << "slot " << i;
    if (upload == nullptr) return;
    Bytes expected = Words({0x10015100, 61664, 0, Bitmask(i) | 0x80000000u});
    const Bytes payload = ExpectedPayload(i);
    expected.insert(expected.end(), payload.begin(), payload.end());
    ASSERT_EQ(upload->arg.size(), 61680u) << "slot " << i;
    EXPECT_TRUE(upload->arg == expected) << "slot " << i << ": upload differs from the reader's payload";
  }

  std::string tuningDir_;
  std::vector<Slot> slots_ = {{"attached0", 0x3},  {"attached1", 0x4000000}, {"lineout0", 0x20000},
                              {"bluetooth0", 0x0}, {"combo0", 0x1},          {"other", 0x2}};
};

const Lines kSlotSuccess = {"Sending data to cache...", "QVRCS_GetPremixData() returns 0",
                            "ioctl(QVR_KORVA_IOCTL_SET_PARAM) returns 0", "load_one_qvrcs_set() returns 0"};

// ---- Start-up: arguments and the driver nodes -----------------------------------

TEST_F(ConfiguratorTest, OneArgumentLoadsAllSixSlots) {
  WriteTuningSet();
  const std::string cacheFile = dir() + "/cache.bin";
  const RunResult run = Run({"--dump-cache", cacheFile}, {tuningDir_});

  Lines expected = RunStartLines(run.Handle());
  for (size_t i = 0; i < 6; ++i) Append(expected, SlotLines(i, kSlotSuccess));
  Append(expected, {"load_settings() returns 0.", "Success setting parameters."});
  EXPECT_THAT(run.log, ElementsAreArray(expected));
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "");

  Lines names = kStartRequests;
  for (int i = 0; i < 6; ++i) Append(names, {"SET_CACHE_BLOCK", "SET_PARAM"});
  ASSERT_THAT(Names(run), ElementsAreArray(names));
  for (const e2e::Request& request : run.requests) {
    EXPECT_EQ(request.node, "/dev/snd/hwC0D2") << "the hardware node is preferred";
  }
  EXPECT_EQ(run.requests[0].arg, Words({0x1001514D, 20, 0xFFFFFFFF, 0x80000002}));
  EXPECT_EQ(run.requests[1].arg, Words({0x1001514C, 2048, 0xFFFFFFFF, 0x80000002}));
  EXPECT_EQ(run.requests[2].arg, Words({0}));
  EXPECT_EQ(run.requests[3].arg, Words({369984}));

  const std::string cache = e2e::ReadFile(cacheFile);
  ASSERT_EQ(cache.size(), 369984u);
  for (size_t i = 0; i < 6; ++i) {
    ExpectSlotRequests(run.requests[4 + 2 * i], &run.requests[5 + 2 * i], i);
    const Bytes payload = ExpectedPayload(i);
    EXPECT_TRUE(std::equal(payload.begin(), payload.end(), cache.begin() + static_cast<long>(i * 61664),
                           [](uint8_t a, char b) { return a == static_cast<uint8_t>(b); }))
        << "the driver placed block " << i << " elsewhere";
  }
}

TEST_F(ConfiguratorTest, NoArgumentUsesDefaultSearchPath) {
  if (fs::exists("/etc/qvr/configurator.cfg")) GTEST_SKIP() << "this machine has /etc/qvr/configurator.cfg";
  const RunResult run = Run({}, {});
  const int fd = run.Handle();
  Lines expected = StartLines({}, fd);
  Append(expected, {"load_settings(//etc/qvr)", "Attempting to set driver cache size to 369984",
                    Format("After setting driver cache size:  g_fd = %d  cacheSize = 369984  retval = 0", fd),
                    "Couldn't open config file //etc/qvr/configurator.cfg", "load_settings() returns -4.",
                    "Error setting parameters."});
  EXPECT_THAT(run.log, ElementsAreArray(expected));
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "");
  EXPECT_THAT(Names(run), ElementsAreArray(kStartRequests));
}

TEST_F(ConfiguratorTest, OnlyExactlyTwoArgumentsDrawTheSecondArgumentWarning) {
  WriteTuningSet();
  const std::string warning = "Trying to specify second argument to release build. Argument ignored";
  for (const auto& [args, warns] : {std::pair{Lines{tuningDir_, "/nonexistent"}, true},
                                    std::pair{Lines{tuningDir_, "a", "b"}, false}}) {
    SCOPED_TRACE(args.size());
    const RunResult run = Run({}, args);
    Lines argumentLines = {"Using " + tuningDir_ + " as search path"};
    if (warns) argumentLines.push_back(warning);
    const Lines expected = StartLines(argumentLines, run.Handle());
    ASSERT_GE(run.log.size(), expected.size());
    EXPECT_THAT(Lines(run.log.begin(), run.log.begin() + static_cast<long>(expected.size())),
                ElementsAreArray(expected));
    EXPECT_EQ(run.out, warns ? warning + ".\n" : "");
    EXPECT_EQ(run.Of("SET_PARAM").size(), 6u) << "the extra arguments change nothing";
    EXPECT_EQ(run.log.back(), "Success setting parameters.");
    EXPECT_EQ(run.status, 0);
  }
}

TEST_F(ConfiguratorTest, SearchPathIsRootedAndJoinedWithoutDoubleSlash) {
  WriteTuningSet();
  // A trailing slash is kept, and not doubled before the file names.
  RunResult run = Run({}, {tuningDir_ + "/"});
  EXPECT_EQ(run.Count("load_settings(/" + tuningDir_ + "/)"), 1u);
  EXPECT_EQ(run.Count(SlotLines(0, {})[0]), 1u) << "slot 0 reads " << TuningPath(0);
  EXPECT_EQ(run.Of("SET_PARAM").size(), 6u);

  // A relative path is taken from the file-system root.
  run = Run({}, {"qvr-relative-search-path"});
  EXPECT_EQ(run.Count("load_settings(/qvr-relative-search-path)"), 1u);
  EXPECT_EQ(run.Count("Couldn't open config file /qvr-relative-search-path/configurator.cfg"), 1u);
  EXPECT_EQ(run.status, 0);
}

// Neither node opens, missing or refused by the security policy: 1002
// passes, each naming the errno, then the run gives up with exit status 1.
TEST_F(ConfiguratorTest, NoNodeGivesUpAfter1002Passes) {
  if (!fs::exists(e2e::kFaketimeExe)) GTEST_SKIP() << "faketime is not installed";
  struct Case {
    Lines options;
    const char* cause;
  };
  for (const Case& c : {Case{{"--nodes", "none"}, "errno 2, No such file or directory"},
                        Case{{"--node", "hw=denied", "--node", "sw=denied"}, "errno 13, Permission denied"}}) {
    SCOPED_TRACE(c.cause);
    Lines options = c.options;
    options.push_back("--summary");
    // 1001 sleeps of 100 ms, run a thousand times faster.
    const RunResult run = RunSim(options, {e2e::kFaketimeExe, "-f", "+0 x1000", e2e::kConfiguratorExe});
    const auto failed = [&](const char* node, const char* next) {
      return Format("Error opening korva %s driver (%s). %s", node, c.cause, next);
    };
    const std::string hardware = failed("DSP", "Attempting to open SOFTWARE driver.");
    const std::string retry = failed("SOFTWARE", "Sleeping for 100 ms and trying again...");
    const std::string giveUp = failed("SOFTWARE", "Max retry count of 1000 hit. Exiting...");
    // The banner, then every pass tries the hardware node first, then the software node.
    ASSERT_EQ(run.log.size(), 1u + 1002u + 1001u + 1u);
    for (size_t pass = 0; pass < 1002; ++pass) {
      ASSERT_EQ(run.log[1 + 2 * pass], hardware) << "pass " << pass + 1;
      ASSERT_EQ(run.log[2 + 2 * pass], pass < 1001 ? retry : giveUp) << "pass " << pass + 1;
    }
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(run.requests.empty());
    EXPECT_THAT(run.out, testing::HasSubstr("faults injected: 2004 (failed opens 2004,"));
    EXPECT_LT(run.seconds, 20.0) << "the sleeps were not accelerated";
  }
}

// At boot the software node's module loads late while the policy refuses the
// hardware node: every pass names EACCES for the hardware node, three passes
// find no software node and sleep, the fourth opens it and the run goes on.
TEST_F(ConfiguratorTest, RefusedHardwareNodeAndLateSoftwareNode) {
  WriteTuningSet();
  const RunResult run =
      Run({"--node", "hw=denied", "--node", "sw=absent", "--node", "sw=present@4", "--summary"}, {tuningDir_});
  const std::string refused =
      "Error opening korva DSP driver (errno 13, Permission denied). Attempting to open SOFTWARE driver.";
  const std::string missing =
      "Error opening korva SOFTWARE driver (errno 2, No such file or directory). Sleeping for 100 ms and trying "
      "again...";
  Lines expected = RunStartLines(run.Handle());
  expected.insert(expected.begin() + 2, {refused, missing, refused, missing, refused, missing, refused});
  for (size_t i = 0; i < 6; ++i) Append(expected, SlotLines(i, kSlotSuccess));
  Append(expected, {"load_settings() returns 0.", "Success setting parameters."});
  EXPECT_THAT(run.log, ElementsAreArray(expected));
  EXPECT_EQ(run.status, 0);
  // Once a node is open the run is the one of OneArgumentLoadsAllSixSlots, on that node.
  EXPECT_EQ(run.Of("SET_PARAM").size(), 6u);
  for (const e2e::Request& request : run.requests) EXPECT_EQ(request.node, "/dev/qvr_korva");
  EXPECT_THAT(run.out, testing::StartsWith("korva-driver-sim summary\n"
                                           "node /dev/snd/hwC0D2: 4 opens, 4 failed with errno 13\n"
                                           "node /dev/qvr_korva: 4 opens, 3 failed with errno 2\n"
                                           "faults injected: 7 (failed opens 7, failed allocations 0, "
                                           "forced answers 0)\n"));
}

TEST_F(ConfiguratorTest, DriverHandleIsAnExportedSymbol) {
  const std::string command = std::string("nm -D -S --defined-only ") + e2e::kConfiguratorExe;
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string symbols;
  char buffer[4096];
  while (size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) symbols.append(buffer, n);
  ASSERT_EQ(pclose(pipe), 0) << command;
  // address, size 4 (a 32-bit handle), a data or bss symbol.
  EXPECT_THAT(symbols, testing::ContainsRegex("[0-9a-f]+ 0+4 [BD] g_fd\n")) << symbols;
}

TEST_F(ConfiguratorTest, VersionIsReadFromTwentyBytesOnly) {
  WriteTuningSet();
  const RunResult run = RunConfigurator({"--dsp-version", "0123456789ABCDEFGHIJ-tail-beyond-twenty"}, {tuningDir_});
  EXPECT_EQ(run.Count("Korva DSP Version = 0123456789ABCDEFGHIJ"), 1u);
}

// ---- Slots ------------------------------------------------------------------------

// One slot's upload buffer cannot be allocated; every slot is still
// attempted, the others upload their own payloads, the exit status stays 0.
// The simulated driver holds no upload for the failed slot. (A slot whose
// file is missing, and each refused request at each of its occurrences, are
// the fault matrix's.)
TEST_F(ConfiguratorTest, OneSlotsFailureLeavesTheOthers) {
  slots_[4].bitmask = 0;  // the combo slot's device bit is set even on an empty mask
  WriteTuningSet();
  constexpr size_t kFailed = 3;
  const RunResult run = Run({"--fail-alloc", "4", "--summary"}, {tuningDir_});
  Lines expected = RunStartLines(run.Handle());
  for (size_t i = 0; i < 6; ++i) {
    Append(expected, SlotLines(i, i != kFailed ? kSlotSuccess
                                               : Lines{"Sending data to cache...",
                                                       "Error allocating memory for qvr_korva_param_desc",
                                                       "load_one_qvrcs_set() returns -3"}));
  }
  Append(expected, {"load_settings() returns -1.", "Error setting parameters."});
  EXPECT_THAT(run.log, ElementsAreArray(expected));
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.err, testing::Not(testing::HasSubstr("korva-driver-sim:")));

  const std::vector<e2e::Request> blocks = run.Of("SET_CACHE_BLOCK");
  const std::vector<e2e::Request> uploads = run.Of("SET_PARAM");
  ASSERT_EQ(blocks.size(), 6u);
  ASSERT_EQ(uploads.size(), 5u);
  for (size_t i = 0, upload = 0; i < 6; ++i) {
    ExpectSlotRequests(blocks[i], i != kFailed ? &uploads[upload++] : nullptr, i);
  }

  // What the driver holds: every block but the failed one.
  EXPECT_THAT(run.out, testing::HasSubstr("\nfaults injected: 1 (failed opens 0, failed allocations 1, forced answers "
                                          "0)\nupload buffer allocation 4: failed with errno 12\n"));
  for (size_t i = 0; i < 6; ++i) {
    const std::string block = Format("\nblock %zu: bitmask=", i);
    const size_t at = run.out.find(block);
    const std::string line = at == std::string::npos ? "" : run.out.substr(at + 1, run.out.find('\n', at + 1) - at - 1);
    EXPECT_EQ(line.find("upload=yes") != std::string::npos, i != kFailed) << line;
  }
}

}  // namespace
