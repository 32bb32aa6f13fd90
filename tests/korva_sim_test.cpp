// The simulated driver's model, driven directly with a fake client: what each
// request does to the cache, what it answers, and that no argument size from
// the client is trusted. Then the simulator itself: its command line, the
// signals that stop a run, and what a run leaves behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <utility>

#include "configurator/korva_driver.h"
#include "e2e_support.h"
#include "test_support.h"
#include "tools/korva-driver-sim/node_rules.h"
#include "tools/korva-driver-sim/sim_model.h"

namespace {

namespace fs = std::filesystem;
using korva_sim::AnswerRule;
using korva_sim::Driver;
using korva_sim::DriverConfig;
using korva_sim::Outcome;
using Bytes = std::vector<uint8_t>;
using e2e::ReadFile;
using e2e::RunResult;
using e2e::WriteFile;
using qvr_test::Lines;

// The client's side of one request: the memory its pointer leads to. Resolved
// bytes are handed back to it as umockdev does when the request completes.
struct FakeClient {
  Bytes memory;
  Bytes window;
  size_t largestRequest = 0;

  korva_sim::ArgumentAccess Access() {
    korva_sim::ArgumentAccess access;
    access.peek = [this](size_t n) {
      largestRequest = std::max(largestRequest, n);
      return n <= memory.size() ? Bytes(memory.begin(), memory.begin() + n) : Bytes{};
    };
    access.resolve = [this](size_t n) -> uint8_t* {
      largestRequest = std::max(largestRequest, n);
      if (n > memory.size()) return nullptr;
      window.assign(memory.begin(), memory.begin() + n);
      return window.data();
    };
    return access;
  }

  Outcome Send(Driver& driver, uint32_t code) {
    window.clear();
    const Outcome outcome = driver.Handle("/dev/qvr_korva", code, Access());
    std::copy(window.begin(), window.end(), memory.begin());
    return outcome;
  }
};

template <typename Record>
FakeClient ClientWith(const Record& record, size_t extra = 0, uint8_t fill = 0) {
  FakeClient client;
  client.memory.assign(sizeof(Record) + extra, fill);
  std::memcpy(client.memory.data(), &record, sizeof(Record));
  return client;
}

Outcome SetCacheSize(Driver& driver, int32_t size) {
  return ClientWith(size).Send(driver, QVR_KORVA_IOCTL_SET_CACHE_SIZE);
}

Outcome SelectBlock(Driver& driver, uint32_t idx, uint32_t bitmask) {
  return ClientWith(qvr_make_cache_block(idx, bitmask)).Send(driver, QVR_KORVA_IOCTL_SET_CACHE_BLOCK);
}

// An upload descriptor claiming `size` bytes at `offset` into the selected
// block, followed by `present` bytes of `fill`.
FakeClient Upload(int32_t size, size_t present, uint8_t fill, uint32_t device = 0x80000001, int32_t offset = 0) {
  return ClientWith(qvr_korva_param_desc{PARAM_ID_PREMIX, size, offset, device}, present, fill);
}

bool IsOk(const Outcome& outcome) { return outcome.answer == 0 && outcome.error == 0; }

std::vector<AnswerRule> Rules(const std::vector<std::string>& texts) {
  std::vector<AnswerRule> rules;
  for (const std::string& text : texts) {
    std::string error;
    EXPECT_TRUE(korva_sim::ParseAnswerRule(text, rules.emplace_back(), error)) << error;
  }
  return rules;
}

// Every byte of [first, last) is `value`.
bool All(Bytes::const_iterator first, Bytes::const_iterator last, uint8_t value) {
  return std::all_of(first, last, [value](uint8_t b) { return b == value; });
}

TEST(AnswerRuleTest, ParsesRulesAndTheExactOccurrenceWins) {
  AnswerRule rule;
  std::string error;
  ASSERT_TRUE(korva_sim::ParseAnswerRule("SET_PARAM#3=-5", rule, error)) << error;
  EXPECT_EQ(std::tie(rule.request, rule.occurrence, rule.value), std::tuple("SET_PARAM", 3u, -5));
  ASSERT_TRUE(korva_sim::ParseAnswerRule("GET_PARAM=0x14", rule, error)) << error;
  EXPECT_EQ(std::tie(rule.occurrence, rule.value), std::tuple(0u, 20));
  for (const char* bad : {"BOGUS=1", "SET_PARAM", "SET_PARAM#0=1", "SET_PARAM#x=1", "SET_PARAM=abc",
                          "SET_PARAM=99999999999", "=1", "set_param=1"}) {
    EXPECT_FALSE(korva_sim::ParseAnswerRule(bad, rule, error)) << bad;
    EXPECT_FALSE(error.empty()) << bad;
  }

  const std::vector<AnswerRule> rules = Rules({"SET_PARAM#2=-7", "SET_PARAM=4", "SET_PARAM=5", "GET_PARAM#1=-1"});
  EXPECT_EQ(korva_sim::FindAnswer(rules, "SET_PARAM", 1)->value, 5) << "the later general rule wins";
  EXPECT_EQ(korva_sim::FindAnswer(rules, "SET_PARAM", 2)->value, -7);
  EXPECT_EQ(korva_sim::FindAnswer(rules, "GET_PARAM", 2), nullptr);
  EXPECT_EQ(korva_sim::FindAnswer(rules, "SET_CACHE_SIZE", 1), nullptr);
}

// A node rule's state holds from its start on; before a node's first rule
// the node is what that rule is not.
TEST(NodeRuleTest, StateFollowsOpensOrTheProgramsClock) {
  using korva_sim::NodeState;
  const auto parse = [](std::vector<std::string> texts) {
    std::vector<korva_sim::NodeRule> rules;
    for (const std::string& text : texts) {
      EXPECT_TRUE(korva_sim::ParseNodeRule(text, rules.emplace_back())) << text;
    }
    return rules;
  };
  constexpr size_t kHw = 0;
  constexpr size_t kSw = 1;
  // By opens: e2e_test's RefusedHardwareNodeAndLateSoftwareNode. By the
  // clock: a node that appears late is absent until then; one refused late is
  // present until then.
  const auto byTime = parse({"sw=present@2.5s", "hw=denied@0.25s"});
  EXPECT_EQ(StateAt(byTime.data(), byTime.size(), kSw, 99, 2499), NodeState::kAbsent);
  EXPECT_EQ(StateAt(byTime.data(), byTime.size(), kSw, 1, 2500), NodeState::kPresent);
  EXPECT_EQ(StateAt(byTime.data(), byTime.size(), kHw, 1, 249), NodeState::kPresent);
  EXPECT_EQ(StateAt(byTime.data(), byTime.size(), kHw, 1, 250), NodeState::kDenied);
  // Of two rules with the same start the later one holds.
  const auto later = parse({"sw=absent", "sw=denied@1"});
  EXPECT_EQ(StateAt(later.data(), later.size(), kSw, 1, 0), NodeState::kDenied);

  korva_sim::NodeRule rule;
  for (const char* bad : {"hw", "xx=absent", "hw=gone", "hw=absent@0", "hw=absent@", "hw=absent@1.5",
                          "hw=absent@s", "hw=absent@1.2345s", "hw=absent@-1", "hw=absent@2x"}) {
    EXPECT_FALSE(korva_sim::ParseNodeRule(bad, rule)) << bad;
  }
}

TEST(SimDriverTest, UploadSizeAndBlockAreNeverTrusted) {
  Driver driver(DriverConfig{});
  ASSERT_TRUE(IsOk(SetCacheSize(driver, qvr::kDriverCacheSize)));

  // No block selected yet.
  FakeClient early = Upload(16, 16, 0x11);
  EXPECT_EQ(early.Send(driver, QVR_KORVA_IOCTL_SET_PARAM).error, EINVAL);

  ASSERT_TRUE(IsOk(SelectBlock(driver, 5, 1))) << "the last block ends exactly at the cache's end";
  ASSERT_TRUE(IsOk(SelectBlock(driver, 0, 1)));
  // Reaching one byte past the block, though not past the cache; absurd and
  // negative sizes and offsets: refused on the descriptor alone, which is all
  // that is read.
  const int32_t block = static_cast<int32_t>(qvr::kCacheBlockSize);
  const std::pair<int32_t, int32_t> refused[] = {{block + 1, 0}, {block, 1},  {1, block},        {INT32_MAX, 0},
                                                  {-1, 0},        {8, -1},     {8, INT32_MAX}};
  for (const auto& [size, offset] : refused) {
    FakeClient bad = Upload(size, qvr::kCacheBlockSize + 1, 0x33, 0x80000001, offset);
    EXPECT_EQ(bad.Send(driver, QVR_KORVA_IOCTL_SET_PARAM).error, EINVAL) << size << "@" << offset;
    EXPECT_EQ(bad.largestRequest, sizeof(qvr_korva_param_desc)) << size << "@" << offset;
  }
  // A descriptor the client cannot even provide.
  FakeClient truncated;
  truncated.memory.assign(8, 0);
  EXPECT_EQ(truncated.Send(driver, QVR_KORVA_IOCTL_SET_PARAM).error, EFAULT);

  EXPECT_TRUE(All(driver.cache().begin(), driver.cache().end(), 0)) << "no refused upload reached the cache";
  EXPECT_FALSE(driver.blocks().at(0).uploaded);
  // Up to the block's last byte is taken, and lands there. (Whole uploads at
  // each block: e2e_test's cache dump.)
  ASSERT_TRUE(IsOk(Upload(10, 10, 0x6B, 0x80000001, block - 10).Send(driver, QVR_KORVA_IOCTL_SET_PARAM)));
  EXPECT_TRUE(All(driver.cache().begin() + block - 10, driver.cache().begin() + block, 0x6B));
  EXPECT_EQ(std::count(driver.cache().begin(), driver.cache().end(), 0x6B), 10);

  // A block must fit the cache, which must exist, and so must the blocks
  // its index counts before it.
  EXPECT_EQ(SelectBlock(driver, 6, 1).error, EINVAL);
  qvr_korva_cache_block pastLast = qvr_make_cache_block(0, 1);
  pastLast.idx = 6;
  EXPECT_EQ(ClientWith(pastLast).Send(driver, QVR_KORVA_IOCTL_SET_CACHE_BLOCK).error, EINVAL);
  EXPECT_EQ(SetCacheSize(driver, -1).error, EINVAL);
  Driver noCache(DriverConfig{});
  EXPECT_EQ(SelectBlock(noCache, 0, 1).error, EINVAL) << "no cache yet";
}

TEST(SimDriverTest, QueryReplyStaysInsideTheDescribedSpace) {
  DriverConfig config;
  config.dspVersion = "0123456789ABCDEFGHIJKLMNOP";
  config.dspDescription = "desc";
  Driver driver(config);

  qvr_korva_param_desc version{PARAM_ID_DSP_VERSION, 20, -1, 0x80000002};
  FakeClient client = ClientWith(version, 64, 0xEE);
  ASSERT_TRUE(IsOk(client.Send(driver, QVR_KORVA_IOCTL_GET_PARAM)));
  EXPECT_EQ(std::string(client.memory.begin() + 16, client.memory.begin() + 36), "0123456789ABCDEFGHIJ");
  EXPECT_TRUE(All(client.memory.begin() + 36, client.memory.end(), 0xEE));

  // A shorter text is padded with zeros up to the described size, no further.
  qvr_korva_param_desc description{PARAM_ID_DSP_DESCRIPTION, 8, -1, 0x80000002};
  client = ClientWith(description, 64, 0xEE);
  ASSERT_TRUE(IsOk(client.Send(driver, QVR_KORVA_IOCTL_GET_PARAM)));
  EXPECT_EQ(Bytes(client.memory.begin() + 16, client.memory.begin() + 24),
            (Bytes{'d', 'e', 's', 'c', 0, 0, 0, 0}));
  EXPECT_EQ(client.memory[24], 0xEE);

  // Unknown parameters and negative sizes are refused without touching the client.
  for (const qvr_korva_param_desc bad :
       {qvr_korva_param_desc{PARAM_ID_POSTMIX, 20, -1, 2}, qvr_korva_param_desc{PARAM_ID_DSP_VERSION, -4, -1, 2}}) {
    client = ClientWith(bad, 64, 0xEE);
    EXPECT_EQ(client.Send(driver, QVR_KORVA_IOCTL_GET_PARAM).error, EINVAL);
    EXPECT_TRUE(All(client.memory.begin() + 16, client.memory.end(), 0xEE));
  }
}

// A request answered as the configurator takes for a refusal (a negative
// answer, or for the cache and upload requests any answer but 0) changes
// nothing; a positive answer to a query is no refusal.
TEST(SimDriverTest, ForcedRefusalChangesNothing) {
  DriverConfig config;
  config.dspVersion = "KQ";
  config.answers = Rules({"SET_CACHE_SIZE#1=-12", "SET_CACHE_SIZE#2=1", "GET_PARAM#1=-5", "GET_PARAM#2=3",
                          "SET_PARAM#1=3", "SET_PARAM#2=-5", "SET_CACHE_BLOCK#2=2"});
  Driver driver(config);
  const Outcome first = SetCacheSize(driver, 4096);
  EXPECT_EQ(std::tie(first.answer, first.error), std::tuple(-1, 12));
  EXPECT_EQ(SetCacheSize(driver, 4096).answer, 1);
  EXPECT_TRUE(driver.cache().empty());
  ASSERT_TRUE(IsOk(SetCacheSize(driver, qvr::kDriverCacheSize))) << "only two occurrences were refused";
  EXPECT_EQ(driver.cache().size(), static_cast<size_t>(qvr::kDriverCacheSize));

  FakeClient query = ClientWith(qvr_korva_param_desc{PARAM_ID_DSP_VERSION, 20, -1, 2}, 20, 0xEE);
  const Outcome refused = query.Send(driver, QVR_KORVA_IOCTL_GET_PARAM);
  EXPECT_EQ(std::tie(refused.answer, refused.error), std::tuple(-1, 5));
  EXPECT_TRUE(All(query.memory.begin() + 16, query.memory.end(), 0xEE)) << "a refused query writes no reply";
  EXPECT_EQ(query.Send(driver, QVR_KORVA_IOCTL_GET_PARAM).answer, 3);
  EXPECT_EQ(query.memory[16], 'K') << "a positive answer to a query comes with its reply";

  ASSERT_TRUE(IsOk(SelectBlock(driver, 1, 0x20)));
  for (int refusal = 0; refusal < 2; ++refusal) {
    FakeClient upload = Upload(100, 100, 0x5A);
    EXPECT_NE(upload.Send(driver, QVR_KORVA_IOCTL_SET_PARAM).answer, 0);
  }
  EXPECT_FALSE(driver.blocks().at(1).uploaded);
  EXPECT_TRUE(All(driver.cache().begin(), driver.cache().end(), 0)) << "no refused upload reached the cache";
  EXPECT_EQ(SelectBlock(driver, 2, 0x20).answer, 2);
  EXPECT_EQ(driver.blocks().count(2), 0u) << "a refused block descriptor selects nothing";

  EXPECT_TRUE(driver.UnmatchedAnswers().empty());
  Driver idle(config);
  SetCacheSize(idle, 4096);
  std::vector<std::string> unmatched;
  for (const AnswerRule& rule : idle.UnmatchedAnswers()) unmatched.push_back(rule.text);
  EXPECT_EQ(unmatched, (std::vector<std::string>{"SET_CACHE_SIZE#2=1", "GET_PARAM#1=-5", "GET_PARAM#2=3",
                                                 "SET_PARAM#1=3", "SET_PARAM#2=-5", "SET_CACHE_BLOCK#2=2"}));
}

using CaptureTest = qvr_test::ScratchDirTest;

TEST_F(CaptureTest, RecordsEveryRequestIncludingUnknownOnes) {
  {
    DriverConfig config;
    config.captureDir = Path("capture");
    Driver driver(config);
    std::string error;
    ASSERT_TRUE(driver.Start(error)) << error;
    ASSERT_TRUE(IsOk(SetCacheSize(driver, qvr::kDriverCacheSize)));
    FakeClient stray;
    const Outcome unknown = stray.Send(driver, 0xF2FFu);
    EXPECT_EQ(std::tie(unknown.answer, unknown.error), std::tuple(-1, ENOTTY));
    EXPECT_EQ(stray.largestRequest, 0u) << "an unknown request's argument is not read";
    FakeClient absurd = Upload(INT32_MAX, 4, 0x33);
    absurd.Send(driver, QVR_KORVA_IOCTL_SET_PARAM);
  }
  const std::string expected =
      "{\"seq\":1,\"node\":\"/dev/qvr_korva\",\"request\":\"SET_CACHE_SIZE\",\"code\":" +
      std::to_string(QVR_KORVA_IOCTL_SET_CACHE_SIZE) + ","
      "\"answer\":0,\"errno\":0,\"arg\":\"0001-SET_CACHE_SIZE.bin\",\"arg_size\":4}\n"
      "{\"seq\":2,\"node\":\"/dev/qvr_korva\",\"request\":\"UNKNOWN\",\"code\":62207,"
      "\"answer\":-1,\"errno\":25,\"arg\":\"0002-UNKNOWN.bin\",\"arg_size\":0}\n"
      "{\"seq\":3,\"node\":\"/dev/qvr_korva\",\"request\":\"SET_PARAM\",\"code\":" +
      std::to_string(QVR_KORVA_IOCTL_SET_PARAM) + ","
      "\"answer\":-1,\"errno\":22,\"arg\":\"0003-SET_PARAM.bin\",\"arg_size\":16}\n";
  EXPECT_EQ(qvr_test::ReadFile(Path("capture/requests.jsonl")), expected);
  EXPECT_EQ(fs::file_size(Path("capture/0001-SET_CACHE_SIZE.bin")), 4u);
  EXPECT_EQ(fs::file_size(Path("capture/0003-SET_PARAM.bin")), 16u);
}

// ---- The simulator's own command line -----------------------------------------------

using SimulatorTest = e2e::E2eTest;

// A tuning set of six slots whose files the configurator uploads as blank
// blocks; `fifo` names a slot file made a FIFO instead.
std::string BlankTuningSet(const std::string& dir, const std::string& fifo = "") {
  std::string cfg;
  for (const char* slot : {"attached0", "attached1", "lineout0", "bluetooth0", "combo0", "other"}) {
    cfg += std::string(slot) + " {\n  filename: \"" + slot + ".bin\"\n  device_bitmask: 0x2\n}\n";
    const std::string file = dir + "/" + slot + ".bin";
    if (file == dir + "/" + fifo) {
      EXPECT_EQ(mkfifo(file.c_str(), 0600), 0) << std::strerror(errno);
    } else {
      WriteFile(file, std::string(70000, '\0'));
    }
  }
  WriteFile(dir + "/configurator.cfg", cfg);
  return dir;
}

// The simulator's program, once it waits in the open of a FIFO nobody writes
// to (by its wait channel, which also holds for a program run through an
// emulator, or by its system call). Waits as long as that takes.
pid_t ProgramBlockedInOpen(pid_t sim) {
  const auto read = [](const std::string& path) {
    std::ifstream in(path);
    std::string word;
    in >> word;
    return word;
  };
  for (;;) {
    const std::string program = read(e2e::Format("/proc/%d/task/%d/children", sim, sim));
    if (!program.empty() && (read("/proc/" + program + "/wchan") == "wait_for_partner" ||
                             read("/proc/" + program + "/syscall") == std::to_string(SYS_openat))) {
      return static_cast<pid_t>(std::stol(program));
    }
    usleep(1000);
  }
}

// A bad option, or a capture folder that is not free, is the simulator's own
// failure: exit status 2, one message naming the simulator, and the program
// never runs.
TEST_F(SimulatorTest, BadOptionsExit2BeforeTheProgramRuns) {
  const std::string marker = dir() + "/ran";
  ASSERT_TRUE(fs::create_directory(dir() + "/capture"));
  WriteFile(dir() + "/capture/earlier.txt", "");
  const std::vector<std::pair<Lines, std::string>> bad = {
      {{"--bogus"}, ""},
      {{"--nodes", "three"}, ""},
      {{"--node", "sw=maybe"}, ""},
      {{"--node", "sw=absent@2", "--node", "sw=present@1s"}, ""},
      {{"--fail-alloc", "0"}, "not in range 1 to 999999999999999999 "},
      {{"--answer", "SET_PARAMS=1"}, ""},
      {{"--dump-cache", dir() + "/no/such/folder/cache.bin"}, ""},
      {{"--dump-cache", dir()}, ""},
      {{"--capture", dir() + "/capture"}, "not empty"},
      {{"--capture", dir() + "/capture", "--force"}, "which no capture wrote"},
  };
  for (const auto& [options, says] : bad) {
    SCOPED_TRACE(options.front() + " " + options.back());
    const RunResult run = RunSim(options, {"touch", marker});
    EXPECT_EQ(run.status, 2);
    EXPECT_THAT(run.err, testing::MatchesRegex("korva-driver-sim: [^\n]+\n")) << run.err;
    EXPECT_THAT(run.err, testing::HasSubstr(says));
    EXPECT_FALSE(fs::exists(marker)) << "the program ran";
  }
  EXPECT_TRUE(fs::exists(dir() + "/capture/earlier.txt"));

  RunResult run = RunSim({"--version"}, {"true"});
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.out, testing::MatchesRegex("korva-driver-sim [0-9]+\\.[0-9]+\n"));
  run = RunSim({"--help"}, {"true"});
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.out, testing::HasSubstr("--fail-alloc"));
}

// While a run is under way its capture folder is its own: another run given
// it stops before its program runs, with --force too, and clears nothing.
// Once the run has ended, --force clears its capture.
TEST_F(SimulatorTest, ACaptureFolderBelongsToOneRun) {
  const std::string fifo = dir() + "/hold";
  const std::string capture = dir() + "/capture";
  const std::string marker = dir() + "/ran";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0) << std::strerror(errno);
  const e2e::SimProcess first = StartSim({"--capture", capture}, {"cat", fifo});
  ASSERT_GT(first.pid, 0);
  ProgramBlockedInOpen(first.pid);
  for (const Lines& options : {Lines{"--capture", capture}, Lines{"--capture", capture, "--force"}}) {
    SCOPED_TRACE(options.back());
    const RunResult run = RunSim(options, {"touch", marker});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "korva-driver-sim: capture folder " + capture + " is in use by another korva-driver-sim run\n");
    EXPECT_FALSE(fs::exists(marker)) << "the program ran";
  }
  WriteFile(fifo, "");  // lets the first run's program end
  EXPECT_EQ(WaitSim(first).status, 0);
  // Then --force clears that capture (and only a capture: see BadOptions).
  WriteFile(capture + "/0001-SET_PARAM.bin", "");
  EXPECT_EQ(RunSim({"--capture", capture, "--force"}, {"true"}).status, 0);
  EXPECT_EQ(std::distance(fs::directory_iterator(capture), fs::directory_iterator()), 1);
}

// A program waiting in an open (a FIFO as a slot file) stops on SIGTERM or
// Ctrl-C sent to the simulator, which exits as a shell would for the
// program's death. The program is the configurator, built for the same
// machine as the simulator: under a user-mode emulator, a host program
// started by the emulated simulator inherits the emulator's own signal mask,
// every signal blocked, which no device ever sees.
TEST_F(SimulatorTest, SignalsStopAProgramWaitingInAnOpen) {
  ASSERT_TRUE(fs::create_directory(dir() + "/set"));
  const std::string set = BlankTuningSet(dir() + "/set", "lineout0.bin");
  for (const int signal : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(strsignal(signal));
    const e2e::SimProcess sim = StartSim({}, {e2e::kConfiguratorExe, set});
    ASSERT_GT(sim.pid, 0);
    ProgramBlockedInOpen(sim.pid);
    kill(sim.pid, signal);
    const RunResult run = WaitSim(sim);
    EXPECT_EQ(run.status, 128 + signal);
    EXPECT_THAT(run.err, testing::HasSubstr(std::string("korva-driver-sim: program killed by signal ") +
                                            strsignal(signal) + "\n"));
  }
}

// What a run leaves behind is whole or not there, and a capture or cache
// file that cannot be written whole fails the run (status 2). Full disks are
// a small tmpfs (when this user can mount one) or /dev/full.
TEST_F(SimulatorTest, ARunsRecordIsWholeOrTheRunFails) {
  ASSERT_TRUE(fs::create_directory(dir() + "/set"));
  const std::string set = BlankTuningSet(dir() + "/set");
  const std::string full = dir() + "/full";
  ASSERT_TRUE(fs::create_directory(full));
  // Room for some of the uploads' arguments, not all.
  const bool mounted = mount("tmpfs", full.c_str(), "tmpfs", 0, "size=200k") == 0;
  const std::string older = dir() + "/older.bin";
  WriteFile(older, "older");
  const Lines configurator = {e2e::kConfiguratorExe, set};
  struct Case {
    Lines options;
    Lines command;
    int status;
    std::string says;
  };
  const std::vector<Case> cases = {
      {{"--capture", full + "/capture"}, configurator, 2, "capture incomplete: cannot write " + full + "/capture/"},
      {{"--dump-cache", full + "/cache.bin"}, configurator, 2,
       "cannot write " + full + "/cache.bin: No space left on device"},
      {{"--dump-cache", "/dev/full"}, configurator, 2, "cannot write /dev/full: No space left on device"},
      {{"--dump-cache", older}, {"sh", "-c", "exit 3"}, 3,
       "--dump-cache: the program set up no cache; " + older + " not written"},
      {{"--answer", "SET_PARAM#7=1"}, configurator, 0, "--answer SET_PARAM#7=1 never applied"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.options.back());
    if (c.options.back().rfind(full, 0) == 0 && !mounted) {
      std::printf("skipped: cannot mount a tmpfs on %s (%s)\n", full.c_str(), std::strerror(errno));
      continue;
    }
    const RunResult run = RunSim(c.options, c.command);
    EXPECT_EQ(run.status, c.status);
    EXPECT_THAT(run.err, testing::HasSubstr("korva-driver-sim: " + c.says));
    if (c.options.front() == "--capture") {
      // Reading the capture checks that every argument file it lists is
      // whole; nothing else is there. It ends at the first upload that did not fit.
      const size_t n = run.requests.size();
      EXPECT_THAT(run.err, testing::HasSubstr(e2e::Format("/capture/%04zu-SET_PARAM.bin: No space left on device; ",
                                                          n + 1) + full + "/capture/requests.jsonl holds the first " +
                                              std::to_string(n) + " requests\n"));
      EXPECT_EQ(std::distance(fs::directory_iterator(full + "/capture"), fs::directory_iterator()), n + 1);
      fs::remove_all(full + "/capture");
    }
    EXPECT_TRUE(!mounted || fs::is_empty(full)) << "a temporary or partial file remains";
  }
  EXPECT_EQ(ReadFile(older), "older");
  for (const fs::directory_entry& entry : fs::directory_iterator(dir())) {
    EXPECT_NE(entry.path().filename().string().rfind("older.bin.", 0), 0u) << "a temporary file remains";
  }
  EXPECT_TRUE(!mounted || umount(full.c_str()) == 0) << std::strerror(errno);
}

}  // namespace
