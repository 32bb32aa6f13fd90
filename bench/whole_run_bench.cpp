// Whole-run cost of qvr_configurator on six maximum-size tuning files, side
// by side with bare_parse, which only reads and parses the same six files.
//
// Run it as the simulated driver's program (scripts/bench-whole-run.sh):
//   korva-driver-sim -- whole_run_bench [--benchmark_... options]
// Every iteration forks and execs one program and waits for it; the
// program's own CPU time (user + system) and peak resident set come from
// its rusage, so the simulator's work (another process) is not counted.
// The wall time includes the simulator's answers.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "configurator/payload.h"
#include "configurator/settings.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

constexpr const char* kSlotNames[] = {"attached0", "attached1", "lineout0",
                                      "bluetooth0", "combo0",   "other"};
static_assert(std::size(kSlotNames) == qvr::kCacheBlockCount);

struct Totals {
  double userSeconds = 0;
  double systemSeconds = 0;
  double cpuSeconds = 0;
  double wallSeconds = 0;
  long maxRssKb = 0;
  int runs = 0;
  std::vector<double> cpuSamples;  // per run, seconds
};

// Median of the per-run CPU times: steadier than the mean on a shared machine.
double MedianCpuMs(Totals& totals) {
  std::vector<double>& samples = totals.cpuSamples;
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  const size_t middle = samples.size() / 2;
  const double median =
      samples.size() % 2 == 1 ? samples[middle] : (samples[middle - 1] + samples[middle]) / 2;
  return 1e3 * median;
}

std::string g_dir;                      // the search path of the runs
std::vector<std::string> g_tuningFiles; // its six tuning files
std::map<std::string, Totals> g_totals; // per benchmark

// Six copies of the maximum-size example and a configurator.cfg naming one
// per slot.
bool MakeSearchPath() {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/qvr_whole_run_XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) return false;
  g_dir = pattern;
  std::ofstream config(g_dir + "/" + qvr::kConfigFileName);
  for (size_t i = 0; i < std::size(kSlotNames); ++i) {
    const std::string name = std::string("max-") + kSlotNames[i] + ".bin";
    std::error_code error;
    fs::copy_file(QVR_MAX_TUNING_FILE, g_dir + "/" + name, error);
    if (error) return false;
    g_tuningFiles.push_back(g_dir + "/" + name);
    config << kSlotNames[i] << " { filename: '" << name << "' device_bitmask: " << (1u << i) << " }\n";
  }
  return config.good();
}

struct ChildRun {
  bool ok = false;
  double userSeconds = 0;
  double systemSeconds = 0;
  double cpuSeconds = 0;
  double wallSeconds = 0;
  long maxRssKb = 0;
  std::string output;  // standard output and error
};

ChildRun RunChild(const std::vector<std::string>& argv) {
  ChildRun run;
  const std::string outPath = g_dir + "/output";
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  const auto start = std::chrono::steady_clock::now();
  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) return run;
  int status = 0;
  rusage usage{};
  while (wait4(pid, &status, 0, &usage) < 0) {
    if (errno != EINTR) return run;
  }
  run.wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
  run.userSeconds = seconds(usage.ru_utime);
  run.systemSeconds = seconds(usage.ru_stime);
  run.cpuSeconds = run.userSeconds + run.systemSeconds;
  run.maxRssKb = usage.ru_maxrss;
  std::ifstream out(outPath);
  std::ostringstream text;
  text << out.rdbuf();
  run.output = text.str();
  run.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  return run;
}

void Measure(benchmark::State& state, const char* name, const std::vector<std::string>& argv,
             const char* mustLog) {
  Totals& totals = g_totals[name];
  for (auto _ : state) {
    const ChildRun run = RunChild(argv);
    if (!run.ok || (mustLog != nullptr && run.output.find(mustLog) == std::string::npos)) {
      state.SkipWithError(("run failed: " + run.output.substr(0, 2000)).c_str());
      return;
    }
    state.SetIterationTime(run.wallSeconds);
    totals.userSeconds += run.userSeconds;
    totals.systemSeconds += run.systemSeconds;
    totals.cpuSeconds += run.cpuSeconds;
    totals.cpuSamples.push_back(run.cpuSeconds);
    totals.wallSeconds += run.wallSeconds;
    totals.maxRssKb = std::max(totals.maxRssKb, run.maxRssKb);
    ++totals.runs;
  }
  if (totals.runs == 0) return;
  state.counters["child_cpu_ms"] = 1e3 * totals.cpuSeconds / totals.runs;
  state.counters["child_user_ms"] = 1e3 * totals.userSeconds / totals.runs;
  state.counters["child_sys_ms"] = 1e3 * totals.systemSeconds / totals.runs;
  state.counters["maxrss_kb"] = static_cast<double>(totals.maxRssKb);
}

void BM_Configurator(benchmark::State& state) {
  Measure(state, "configurator", {QVR_CONFIGURATOR_EXE, g_dir}, "load_settings() returns 0.");
}

void BM_BareParse(benchmark::State& state) {
  std::vector<std::string> argv = {QVR_BARE_PARSE_EXE};
  argv.insert(argv.end(), g_tuningFiles.begin(), g_tuningFiles.end());
  Measure(state, "bare", argv, nullptr);
}

void Summarise() {
  const auto configurator = g_totals.find("configurator");
  const auto bare = g_totals.find("bare");
  if (configurator == g_totals.end() || bare == g_totals.end()) return;
  Totals& c = configurator->second;
  Totals& b = bare->second;
  if (c.runs == 0 || b.runs == 0 || b.cpuSeconds <= 0) return;
  std::printf("\nwhole run, six maximum-size tuning files (%d and %d runs)\n", c.runs, b.runs);
  const auto line = [](const char* name, Totals& t) {
    std::printf("  %-16s cpu median %6.2f ms, mean %6.2f ms (user %5.2f, sys %5.2f)  wall %6.2f ms  "
                "peak rss %5ld kB\n",
                name, MedianCpuMs(t), 1e3 * t.cpuSeconds / t.runs, 1e3 * t.userSeconds / t.runs,
                1e3 * t.systemSeconds / t.runs, 1e3 * t.wallSeconds / t.runs, t.maxRssKb);
  };
  line("qvr_configurator", c);
  line("bare_parse", b);
  const double ratio = MedianCpuMs(c) / MedianCpuMs(b);
  const double meanRatio = (c.cpuSeconds / c.runs) / (b.cpuSeconds / b.runs);
  std::printf("  cpu ratio of medians %.3f, of means %.3f (goal <= 1.20: %s), configurator peak rss %.2f MB (goal <= 8 MB: %s)\n",
              ratio, meanRatio, ratio <= 1.2 ? "met" : "MISSED", c.maxRssKb / 1024.0,
              c.maxRssKb <= 8 * 1024 ? "met" : "MISSED");
}

}  // namespace

BENCHMARK(BM_BareParse)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_Configurator)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);

int main(int argc, char** argv) {
  if (std::getenv("UMOCKDEV_DIR") == nullptr) {
    std::fprintf(stderr, "whole_run_bench: run it under korva-driver-sim "
                         "(scripts/bench-whole-run.sh)\n");
    return 2;
  }
  if (!MakeSearchPath()) {
    std::fprintf(stderr, "whole_run_bench: cannot set up the tuning files in %s\n", g_dir.c_str());
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  Summarise();
  std::error_code ignored;
  fs::remove_all(g_dir, ignored);
  return 0;
}
