// qvr_configurator end to end: the real binary under korva-driver-sim, with
// tuning files written here. Each test checks the exact log, the standard
// output, the exit status and the bytes of every request the driver received.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <optional>

#include "configurator/payload.h"
#include "configurator/tuning_reader.h"
#include "e2e_support.h"
#include "qvrcsPB.pb.h"

namespace {

namespace fs = std::filesystem;
using com::qvr::pb::korva_v1_1::KorvaSettings;
using com::qvr::pb::wbn::Qvrcs;
using e2e::Format;
using e2e::RunResult;
using e2e::Words;
using testing::ElementsAreArray;
using testing::HasSubstr;
using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

constexpr const char* kVersion = "KQ6 2.4.1-test";
constexpr const char* kDescription = "Korva test DSP\nrev B";

const std::vector<std::string> kTextOptions = {"--dsp-version", kVersion, "--dsp-description", kDescription};

// Request sequence of a run that reaches the slots, before the first slot.
const Lines kStartRequests = {"GET_PARAM", "GET_PARAM", "SET_VOLUME_CONTROLS", "SET_CACHE_SIZE"};

struct Slot {
  std::string field;  // name in configurator.cfg
  std::string file;
  uint32_t bitmask;
};

Lines Names(const RunResult& run) {
  Lines names;
  for (const e2e::Request& request : run.requests) names.push_back(request.name);
  return names;
}

void Append(Lines& lines, const Lines& more) { lines.insert(lines.end(), more.begin(), more.end()); }

// A tuning file whose settings differ per slot, so every payload is distinct.
std::string TuningBytes(int seed) {
  KorvaSettings settings;
  settings.mutable_premix()->set_stream_gain(1000 + seed);
  settings.mutable_premix()->mutable_dravo()->set_input_gain(-seed);
  settings.mutable_postmix()->set_postmix_gain(-200 - seed);
  settings.mutable_postmix()->set_output_device(seed);
  Qvrcs message;
  *message.add_workspace()->add_routeconfiguration()->add_tech()->mutable_korva_v1_1() = settings;
  return message.SerializeAsString();
}

std::string CacheBlockLine(uint32_t index, uint32_t bitmask) {
  return Format(
      "[0]idx=%u  [1]bitmask=0x%X  [2]kGlobalOffset=%u  [3]preCmd=0x10015100  [4]preSize=156  "
      "[5]preOff=156  [6]fadeCmd=0x0  [7]fadeSize=20  [8]postOff=176  [9]postCmd=0x1001522c  "
      "[10]postSize=61468  [11]fadeOff=61644  [12]fadeCmd=0x0  [13]fadeSize=20",
      index, bitmask, index * 61664);
}

Bytes CacheBlockBytes(uint32_t index, uint32_t bitmask) {
  return Words({index, bitmask, index * 61664, 0x10015100, 156, 156, 0, 20, 176, 0x1001522C, 61468,
                61644, 0, 20});
}

class ConfiguratorTest : public e2e::E2eTest {
 protected:
  void SetUp() override {
    E2eTest::SetUp();
    tuningDir_ = dir() + "/tuning";
    ASSERT_TRUE(fs::create_directory(tuningDir_));
    slots_ = {{"attached0", "attached0.bin", 0x3},  {"attached1", "attached1.bin", 0x4000000},
              {"lineout0", "lineout0.bin", 0x20000}, {"bluetooth0", "bluetooth0.bin", 0x0},
              {"combo0", "combo0.bin", 0x1},         {"other", "other.bin", 0x2}};
  }

  // Writes the six tuning files and a configurator.cfg naming them.
  void WriteTuningSet() {
    for (size_t i = 0; i < slots_.size(); ++i) {
      e2e::WriteFile(TuningPath(i), TuningBytes(static_cast<int>(i)));
    }
    WriteConfig("");
  }

  // configurator.cfg for the slots, leaving out the slot named `omit`.
  void WriteConfig(const std::string& omit) {
    std::string text;
    for (const Slot& slot : slots_) {
      if (slot.field == omit) continue;
      text += Format("%s { filename: '%s' device_bitmask: %u }\n", slot.field.c_str(), slot.file.c_str(),
                     slot.bitmask);
    }
    e2e::WriteFile(tuningDir_ + "/configurator.cfg", text);
  }

  // The path the configurator forms for slot `i`: the search path is rooted at "/".
  std::string TuningPath(size_t i) const { return "/" + tuningDir_ + "/" + slots_[i].file; }

  // The payload the tuning file reader makes of slot `i`'s file.
  Bytes ExpectedPayload(size_t i) const {
    Bytes payload(qvr::kCacheBlockSize, 0);
    EXPECT_EQ(QVRCS_GetPremixData(TuningPath(i).c_str(), payload.data()), 0) << TuningPath(i);
    return payload;
  }

  RunResult Run(std::vector<std::string> simOptions, const std::vector<std::string>& args) {
    simOptions.insert(simOptions.end(), kTextOptions.begin(), kTextOptions.end());
    return RunConfigurator(simOptions, args);
  }

  // Log lines from the banner to the volume controls, for a driver that
  // answers every query, opened as handle `fd`.
  static Lines StartLines(const Lines& argumentLines, int fd) {
    Lines lines = {"running qvr_configurator (" + std::to_string(sizeof(long) * 8) +
                   " bit): version 2.21 (targeting Korva 1.1)"};
    Append(lines, argumentLines);
    Append(lines, {std::string("Korva DSP Version = ") + kVersion,
                   std::string("Korva DSP Description = \n") + kDescription,
                   Format("Korva driver handle %i.", fd), "Success setting volume controls."});
    return lines;
  }

  // Log lines of load_settings up to the configuration file, cache sized.
  Lines SettingsStartLines(const std::string& storedPath, int fd) const {
    return {"load_settings(" + storedPath + ")", "Attempting to set driver cache size to 369984",
            Format("After setting driver cache size:  g_fd = %d  cacheSize = 369984  retval = 0", fd)};
  }

  // Log lines of slot `i` up to its cache block request.
  Lines SlotStartLines(size_t i) const {
    const uint32_t bitmask = slots_[i].bitmask | (i == 4 ? 0x400000u : 0u);
    return {Format("load_one_qvrcs_set() : qvrcsPath = '%s'  cacheBlockIndex = %zu", TuningPath(i).c_str(), i),
            "Setting cache block.", CacheBlockLine(static_cast<uint32_t>(i), bitmask)};
  }

  Lines SlotSuccessLines(size_t i) const {
    Lines lines = SlotStartLines(i);
    Append(lines, {"Sending data to cache...", "QVRCS_GetPremixData() returns 0",
                   "ioctl(QVR_KORVA_IOCTL_SET_PARAM) returns 0", "load_one_qvrcs_set() returns 0"});
    return lines;
  }

  // Checks slot `i`'s cache block request and upload (when one is expected).
  void ExpectSlotRequests(const e2e::Request& block, const e2e::Request* upload, size_t i,
                          const Bytes& payload) const {
    const uint32_t index = static_cast<uint32_t>(i);
    const uint32_t bitmask = slots_[i].bitmask | (i == 4 ? 0x400000u : 0u);
    EXPECT_EQ(block.arg, CacheBlockBytes(index, bitmask)) << "slot " << i;
    if (upload == nullptr) return;
    Bytes expected = Words({0x10015100, 61664, 0, bitmask | 0x80000000u});
    expected.insert(expected.end(), payload.begin(), payload.end());
    ASSERT_EQ(upload->arg.size(), 61680u) << "slot " << i;
    EXPECT_TRUE(upload->arg == expected) << "slot " << i << ": upload differs from the reader's payload";
  }

  // The handle the run logged ("Korva driver handle N.").
  static int LoggedHandle(const RunResult& run) {
    for (const std::string& line : run.log) {
      int fd = -1;
      if (std::sscanf(line.c_str(), "Korva driver handle %d.", &fd) == 1) return fd;
    }
    ADD_FAILURE() << "no driver handle line";
    return -1;
  }

  std::string tuningDir_;
  std::vector<Slot> slots_;
};

// ---- Start-up: arguments and the driver nodes -----------------------------------

using StartupTest = ConfiguratorTest;

TEST_F(StartupTest, OneArgumentLoadsAllSixSlots) {
  WriteTuningSet();
  const std::string cacheFile = dir() + "/cache.bin";
  const RunResult run = Run({"--dump-cache", cacheFile}, {tuningDir_});
  const int fd = LoggedHandle(run);

  Lines expected = StartLines({"Using " + tuningDir_ + " as search path"}, fd);
  Append(expected, SettingsStartLines("/" + tuningDir_, fd));
  for (size_t i = 0; i < 6; ++i) Append(expected, SlotSuccessLines(i));
  Append(expected, {"load_settings() returns 0.", "Success setting parameters."});
  EXPECT_THAT(run.log, ElementsAreArray(expected));
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "");

  Lines names = kStartRequests;
  for (int i = 0; i < 6; ++i) Append(names, {"SET_CACHE_BLOCK", "SET_PARAM"});
  ASSERT_THAT(Names(run), ElementsAreArray(names));
  for (const e2e::Request& request : run.requests) {
    EXPECT_EQ(request.node, "/dev/snd/hwC0D2") << "the hardware node is preferred";
    EXPECT_EQ(request.answer, 0);
  }
  EXPECT_EQ(run.requests[0].arg, Words({0x1001514D, 20, 0xFFFFFFFF, 0x80000002}));
  EXPECT_EQ(run.requests[1].arg, Words({0x1001514C, 2048, 0xFFFFFFFF, 0x80000002}));
  EXPECT_EQ(run.requests[2].arg, Words({0}));
  EXPECT_EQ(run.requests[3].arg, Words({369984}));

  const std::string cache = e2e::ReadFile(cacheFile);
  ASSERT_EQ(cache.size(), 369984u);
  for (size_t i = 0; i < 6; ++i) {
    const Bytes payload = ExpectedPayload(i);
    ExpectSlotRequests(run.requests[4 + 2 * i], &run.requests[5 + 2 * i], i, payload);
    // The driver placed each payload at its block's offset.
    EXPECT_TRUE(std::equal(payload.begin(), payload.end(), cache.begin() + i * 61664,
                           [](uint8_t a, char b) { return a == static_cast<uint8_t>(b); }))
        << "cache block " << i;
  }
}

TEST_F(StartupTest, NoArgumentUsesDefaultSearchPath) {
  if (fs::exists("/etc/qvr/configurator.cfg")) GTEST_SKIP() << "this machine has /etc/qvr/configurator.cfg";
  const RunResult run = Run({}, {});
  const int fd = LoggedHandle(run);
  Lines expected = StartLines({}, fd);
  Append(expected, SettingsStartLines("//etc/qvr", fd));
  Append(expected, {"Couldn't open config file //etc/qvr/configurator.cfg", "load_settings() returns -4.",
                    "Error setting parameters."});
  EXPECT_THAT(run.log, ElementsAreArray(expected));
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "");
  EXPECT_THAT(Names(run), ElementsAreArray(kStartRequests));
}

TEST_F(StartupTest, ExactlyTwoArgumentsWarnOnceAndIgnoreTheSecond) {
  WriteTuningSet();
  const RunResult run = Run({}, {tuningDir_, "/nonexistent"});
  const int fd = LoggedHandle(run);
  const Lines expected =
      StartLines({"Using " + tuningDir_ + " as search path",
                  "Trying to specify second argument to release build. Argument ignored"},
                 fd);
  ASSERT_GE(run.log.size(), expected.size());
  EXPECT_THAT(Lines(run.log.begin(), run.log.begin() + expected.size()), ElementsAreArray(expected));
  EXPECT_EQ(run.out, "Trying to specify second argument to release build. Argument ignored.\n");
  EXPECT_EQ(run.Of("SET_PARAM").size(), 6u) << "the second argument changes nothing";
  EXPECT_EQ(run.log.back(), "Success setting parameters.");
  EXPECT_EQ(run.status, 0);
}

TEST_F(StartupTest, ThreeArgumentsDrawNoWarning) {
  WriteTuningSet();
  const RunResult run = Run({}, {tuningDir_, "a", "b"});
  const int fd = LoggedHandle(run);
  const Lines expected = StartLines({"Using " + tuningDir_ + " as search path"}, fd);
  ASSERT_GE(run.log.size(), expected.size());
  EXPECT_THAT(Lines(run.log.begin(), run.log.begin() + expected.size()), ElementsAreArray(expected));
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.Of("SET_PARAM").size(), 6u);
  EXPECT_EQ(run.status, 0);
}

TEST_F(StartupTest, SearchPathIsRootedAndJoinedWithoutDoubleSlash) {
  WriteTuningSet();
  // A trailing slash: nothing doubled before the file names.
  RunResult run = Run({}, {tuningDir_ + "/"});
  EXPECT_EQ(run.Count("load_settings(/" + tuningDir_ + "/)"), 1u);
  EXPECT_EQ(run.Count(Format("load_one_qvrcs_set() : qvrcsPath = '%s'  cacheBlockIndex = 0", TuningPath(0).c_str())), 1u);
  EXPECT_EQ(run.Of("SET_PARAM").size(), 6u);

  // A relative path is taken from the file-system root.
  run = Run({}, {"qvr-relative-search-path"});
  EXPECT_EQ(run.Count("load_settings(/qvr-relative-search-path)"), 1u);
  EXPECT_EQ(run.Count("Couldn't open config file /qvr-relative-search-path/configurator.cfg"), 1u);
  EXPECT_EQ(run.status, 0);
}

TEST_F(StartupTest, HardwareNodeMissingFallsBackWithoutSleeping) {
  WriteTuningSet();
  const RunResult run = Run({"--nodes", "sw"}, {tuningDir_});
  const int fd = LoggedHandle(run);
  Lines expected = {"Error opening korva DSP driver (errno 2, No such file or directory). Attempting to open "
                    "SOFTWARE driver."};
  const Lines start = StartLines({"Using " + tuningDir_ + " as search path"}, fd);
  expected.insert(expected.begin(), start.begin(), start.begin() + 2);
  Append(expected, Lines(start.begin() + 2, start.end()));
  ASSERT_GE(run.log.size(), expected.size());
  EXPECT_THAT(Lines(run.log.begin(), run.log.begin() + expected.size()), ElementsAreArray(expected));
  EXPECT_EQ(run.log.back(), "Success setting parameters.");
  ASSERT_EQ(run.requests.size(), 16u);
  for (const e2e::Request& request : run.requests) EXPECT_EQ(request.node, "/dev/qvr_korva");
  EXPECT_EQ(run.status, 0);
}

TEST_F(StartupTest, HardwareNodeAloneIsUsedDirectly) {
  WriteTuningSet();
  const RunResult run = Run({"--nodes", "hw"}, {tuningDir_});
  for (const std::string& line : run.log) EXPECT_THAT(line, testing::Not(HasSubstr("Error opening")));
  ASSERT_EQ(run.requests.size(), 16u);
  for (const e2e::Request& request : run.requests) EXPECT_EQ(request.node, "/dev/snd/hwC0D2");
}

TEST_F(StartupTest, NoNodeGivesUpAfter1002Passes) {
  if (!fs::exists(e2e::kFaketimeExe)) GTEST_SKIP() << "faketime is not installed";
  // 1001 sleeps of 100 ms, run a thousand times faster.
  const RunResult run = RunSim({"--nodes", "none"}, {e2e::kFaketimeExe, "-f", "+0 x1000", e2e::kConfiguratorExe});
  const std::string hardware =
      "Error opening korva DSP driver (errno 2, No such file or directory). Attempting to open SOFTWARE driver.";
  const std::string retry =
      "Error opening korva SOFTWARE driver (errno 2, No such file or directory). Sleeping for 100 ms and trying "
      "again...";
  const std::string giveUp =
      "Error opening korva SOFTWARE driver (errno 2, No such file or directory). Max retry count of 1000 hit. "
      "Exiting...";
  EXPECT_EQ(run.Count(hardware), 1002u);
  EXPECT_EQ(run.Count(retry), 1001u);
  EXPECT_EQ(run.Count(giveUp), 1u);
  ASSERT_EQ(run.log.size(), 1u + 1002u + 1001u + 1u);
  EXPECT_EQ(run.log.back(), giveUp);
  // Every pass tries the hardware node first, then the software node.
  for (size_t pass = 0; pass < 1001; ++pass) {
    ASSERT_EQ(run.log[1 + 2 * pass], hardware) << "pass " << pass + 1;
    ASSERT_EQ(run.log[2 + 2 * pass], retry) << "pass " << pass + 1;
  }
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(run.requests.empty());
  EXPECT_LT(run.seconds, 20.0) << "the sleeps were not accelerated";
}

TEST_F(StartupTest, DriverHandleIsAnExportedSymbol) {
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

// ---- Driver answers -------------------------------------------------------------

using DriverAnswerTest = ConfiguratorTest;

TEST_F(DriverAnswerTest, RefusedQueriesAndVolumeAreReportedAndTheRunGoesOn) {
  WriteTuningSet();
  const RunResult run =
      Run({"--answer", "GET_PARAM=-5", "--answer", "SET_VOLUME_CONTROLS=-22"}, {tuningDir_});
  const int fd = LoggedHandle(run);
  Lines expected = {"running qvr_configurator (" + std::to_string(sizeof(long) * 8) +
                        " bit): version 2.21 (targeting Korva 1.1)",
                    "Using " + tuningDir_ + " as search path",
                    "Error -1 querying driver for version number",
                    "Error -1 querying driver for version description",
                    Format("Korva driver handle %i.", fd),
                    "Error setting volume controls."};
  Append(expected, SettingsStartLines("/" + tuningDir_, fd));
  for (size_t i = 0; i < 6; ++i) Append(expected, SlotSuccessLines(i));
  Append(expected, {"load_settings() returns 0.", "Success setting parameters."});
  EXPECT_THAT(run.log, ElementsAreArray(expected));
  EXPECT_EQ(run.status, 0);
}

TEST_F(DriverAnswerTest, PositiveQueryAnswerCountsAsSuccess) {
  WriteTuningSet();
  const RunResult run = Run({"--answer", "GET_PARAM=20", "--answer", "SET_VOLUME_CONTROLS=1"}, {tuningDir_});
  EXPECT_EQ(run.Count(std::string("Korva DSP Version = ") + kVersion), 1u);
  EXPECT_EQ(run.Count("Success setting volume controls."), 1u);
}

TEST_F(DriverAnswerTest, VersionIsReadFromTwentyBytesOnly) {
  WriteTuningSet();
  const RunResult run =
      RunConfigurator({"--dsp-version", "0123456789ABCDEFGHIJ-tail-beyond-twenty"}, {tuningDir_});
  EXPECT_EQ(run.Count("Korva DSP Version = 0123456789ABCDEFGHIJ"), 1u);
}

TEST_F(DriverAnswerTest, RefusedCacheSizeStopsTheUpload) {
  WriteTuningSet();
  for (const char* answer : {"-16", "1"}) {
    SCOPED_TRACE(std::string("cache size answered ") + answer);
    const RunResult run = Run({"--answer", std::string("SET_CACHE_SIZE=") + answer}, {tuningDir_});
    const int fd = LoggedHandle(run);
    const Lines tail = {"load_settings(/" + tuningDir_ + ")", "Attempting to set driver cache size to 369984",
                        Format("After setting driver cache size:  g_fd = %d  cacheSize = 369984  retval = -2", fd),
                        "load_settings() returns -2.", "Error setting parameters."};
    ASSERT_GE(run.log.size(), tail.size());
    EXPECT_THAT(Lines(run.log.end() - tail.size(), run.log.end()), ElementsAreArray(tail));
    EXPECT_THAT(Names(run), ElementsAreArray(kStartRequests)) << "nothing is sent after the cache size";
    EXPECT_EQ(run.status, 0);
  }
}

// ---- Configuration file and slots ---------------------------------------------------

using SlotLoadingTest = ConfiguratorTest;

TEST_F(SlotLoadingTest, MissingConfigurationFile) {
  const RunResult run = Run({}, {tuningDir_});
  const Lines tail = {"Couldn't open config file /" + tuningDir_ + "/configurator.cfg",
                      "load_settings() returns -4.", "Error setting parameters."};
  ASSERT_GE(run.log.size(), tail.size());
  EXPECT_THAT(Lines(run.log.end() - tail.size(), run.log.end()), ElementsAreArray(tail));
  EXPECT_THAT(Names(run), ElementsAreArray(kStartRequests));
  EXPECT_EQ(run.status, 0);
}

TEST_F(SlotLoadingTest, UnparsableConfigurationLoadsNoSlot) {
  WriteTuningSet();
  const std::vector<std::pair<std::string, std::function<void()>>> cases = {
      {"a slot left out", [&] { WriteConfig("other"); }},
      {"a syntax error", [&] { e2e::WriteFile(tuningDir_ + "/configurator.cfg", "attached0 { filename: \n"); }},
      {"an unknown field",
       [&] {
         WriteConfig("");
         e2e::WriteFile(tuningDir_ + "/configurator.cfg",
                        e2e::ReadFile(tuningDir_ + "/configurator.cfg") + "extra { }\n");
       }},
  };
  for (const auto& [what, write] : cases) {
    SCOPED_TRACE(what);
    write();
    const RunResult run = Run({}, {tuningDir_});
    const Lines tail = {"*** Error parsing ConfiguratorConfig protocol buffer ***", "load_settings() returns -5.",
                        "Error setting parameters."};
    ASSERT_GE(run.log.size(), tail.size());
    EXPECT_THAT(Lines(run.log.end() - tail.size(), run.log.end()), ElementsAreArray(tail));
    EXPECT_THAT(Names(run), ElementsAreArray(kStartRequests)) << "no cache block descriptor is sent";
    EXPECT_EQ(run.status, 0);
  }
}

TEST_F(SlotLoadingTest, MissingTuningFileFailsOnlyItsSlot) {
  WriteTuningSet();
  ASSERT_TRUE(fs::remove(tuningDir_ + "/" + slots_[2].file));
  const RunResult run = Run({}, {tuningDir_});
  const int fd = LoggedHandle(run);

  Lines expected = StartLines({"Using " + tuningDir_ + " as search path"}, fd);
  Append(expected, SettingsStartLines("/" + tuningDir_, fd));
  for (size_t i = 0; i < 6; ++i) {
    if (i != 2) {
      Append(expected, SlotSuccessLines(i));
      continue;
    }
    Append(expected, SlotStartLines(i));
    Append(expected, {"Sending data to cache...", "Error: could not open " + TuningPath(i),
                      "QVRCS_GetPremixData() returns -4", "load_one_qvrcs_set() returns -4"});
  }
  Append(expected, {"load_settings() returns -1.", "Error setting parameters."});
  EXPECT_THAT(run.log, ElementsAreArray(expected));
  EXPECT_EQ(run.status, 0);

  Lines names = kStartRequests;
  for (int i = 0; i < 6; ++i) Append(names, i == 2 ? Lines{"SET_CACHE_BLOCK"} : Lines{"SET_CACHE_BLOCK", "SET_PARAM"});
  ASSERT_THAT(Names(run), ElementsAreArray(names));
  const std::vector<e2e::Request> blocks = run.Of("SET_CACHE_BLOCK");
  const std::vector<e2e::Request> uploads = run.Of("SET_PARAM");
  for (size_t i = 0, upload = 0; i < 6; ++i) {
    ExpectSlotRequests(blocks[i], i == 2 ? nullptr : &uploads[upload++], i, i == 2 ? Bytes{} : ExpectedPayload(i));
  }
}

TEST_F(SlotLoadingTest, RefusedRequestsFailOnlyTheirSlot) {
  WriteTuningSet();
  struct Case {
    std::string answer;
    Lines slotTail;  // slot 2's lines after its cache block line
    size_t uploads;
  };
  const std::vector<Case> cases = {
      {"SET_CACHE_BLOCK#3=-5", {"load_one_qvrcs_set() returns -2"}, 5},
      {"SET_PARAM#3=-5",
       {"Sending data to cache...", "QVRCS_GetPremixData() returns 0", "ioctl(QVR_KORVA_IOCTL_SET_PARAM) returns -1",
        "load_one_qvrcs_set() returns -2"},
       6},
      {"SET_PARAM#3=7",
       {"Sending data to cache...", "QVRCS_GetPremixData() returns 0", "ioctl(QVR_KORVA_IOCTL_SET_PARAM) returns 7",
        "load_one_qvrcs_set() returns -2"},
       6},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.answer);
    const RunResult run = Run({"--answer", c.answer}, {tuningDir_});
    const int fd = LoggedHandle(run);
    Lines expected = StartLines({"Using " + tuningDir_ + " as search path"}, fd);
    Append(expected, SettingsStartLines("/" + tuningDir_, fd));
    for (size_t i = 0; i < 6; ++i) {
      if (i == 2) {
        Append(expected, SlotStartLines(i));
        Append(expected, c.slotTail);
      } else {
        Append(expected, SlotSuccessLines(i));
      }
    }
    Append(expected, {"load_settings() returns -1.", "Error setting parameters."});
    EXPECT_THAT(run.log, ElementsAreArray(expected));
    EXPECT_EQ(run.Of("SET_CACHE_BLOCK").size(), 6u) << "every slot is attempted";
    EXPECT_EQ(run.Of("SET_PARAM").size(), c.uploads);
    EXPECT_EQ(run.status, 0);
  }
}

TEST_F(SlotLoadingTest, ComboSlotAlwaysCarriesItsDeviceBit) {
  // combo0 with bitmask 1 and with 0; bluetooth0 (slot 3) with 0 stays 0.
  for (const uint32_t comboBitmask : {1u, 0u}) {
    SCOPED_TRACE(comboBitmask);
    slots_[4].bitmask = comboBitmask;
    slots_[3].bitmask = 0;
    WriteTuningSet();
    const RunResult run = Run({}, {tuningDir_});
    const std::vector<e2e::Request> blocks = run.Of("SET_CACHE_BLOCK");
    const std::vector<e2e::Request> uploads = run.Of("SET_PARAM");
    ASSERT_EQ(blocks.size(), 6u);
    ASSERT_EQ(uploads.size(), 6u);
    EXPECT_EQ(Bytes(blocks[4].arg.begin() + 4, blocks[4].arg.begin() + 8), Words({comboBitmask | 0x400000}));
    EXPECT_EQ(Bytes(uploads[4].arg.begin() + 12, uploads[4].arg.begin() + 16),
              Words({comboBitmask | 0x80400000}));
    EXPECT_EQ(Bytes(blocks[3].arg.begin() + 4, blocks[3].arg.begin() + 8), Words({0}));
    EXPECT_EQ(Bytes(uploads[3].arg.begin() + 12, uploads[3].arg.begin() + 16), Words({0x80000000}));
    EXPECT_EQ(run.Count(CacheBlockLine(4, comboBitmask | 0x400000)), 1u);
  }
}

TEST_F(SlotLoadingTest, UnparsableTuningFileUploadsAZeroPayload) {
  WriteTuningSet();
  e2e::WriteFile(tuningDir_ + "/" + slots_[1].file, std::string("\xff\xff\xff\xff not a tuning file", 22));
  const RunResult run = Run({}, {tuningDir_});
  const std::vector<e2e::Request> uploads = run.Of("SET_PARAM");
  ASSERT_EQ(uploads.size(), 6u) << "the reader does not report an unparsable file";
  ASSERT_EQ(uploads[1].arg.size(), 61680u);
  EXPECT_EQ(Bytes(uploads[1].arg.begin(), uploads[1].arg.begin() + 16), Words({0x10015100, 61664, 0, 0x84000000}));
  EXPECT_TRUE(std::all_of(uploads[1].arg.begin() + 16, uploads[1].arg.end(), [](uint8_t b) { return b == 0; }))
      << "the untouched payload goes out zero-filled";
  EXPECT_EQ(run.log.back(), "Success setting parameters.");
}

}  // namespace
