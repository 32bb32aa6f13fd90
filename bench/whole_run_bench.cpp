// Whole-run cost of qvr_configurator on six maximum-size tuning files, side
// by side with bare_parse, which only reads and parses the same six files;
// and both on six minimal tuning files, which leaves the fixed cost of a run.
//
// Run it as the simulated driver's program (scripts/bench-whole-run.sh):
//   korva-driver-sim -- whole_run_bench [--benchmark_... options]
// Every iteration forks and execs one program and waits for it; the
// program's own CPU time (user + system) and peak resident set come from
// its rusage, so the simulator's work (another process) is not counted.
// The wall time includes the simulator's answers. The in-process variant
// (qvr_configurator_inproc against bare_run) runs without the simulator's
// preload: the driver is answered inside the configurator's process.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <cstring>
#include <tuple>
#include <vector>

#include "bench/child_run.h"
#include "configurator/config_file.h"
#include "configurator/settings.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

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
double MedianCpuMs(const Totals& totals) { return 1e3 * qvr_bench::Median(totals.cpuSamples); }

// One search path: six copies of one tuning file and a configurator.cfg
// naming one per slot.
struct TuningSet {
  std::string dir;
  std::vector<std::string> files;
};

std::string g_scratch;                  // holds both sets
TuningSet g_maximum;                    // six maximum-size tuning files
TuningSet g_minimal;                    // six minimal ones: the fixed cost of a run
std::map<std::string, Totals> g_totals; // per benchmark

bool MakeTuningSet(const std::string& name, const char* source, TuningSet& set) {
  set.dir = g_scratch + "/" + name;
  if (!fs::create_directory(set.dir)) return false;
  std::ofstream config(set.dir + "/" + qvr::kConfigFileName);
  for (size_t i = 0; i < std::size(qvr::kConfigSlots); ++i) {
    const char* slot = qvr::kConfigSlots[i].name;
    const std::string file = name + "-" + slot + ".bin";
    std::error_code error;
    fs::copy_file(source, set.dir + "/" + file, error);
    if (error) return false;
    set.files.push_back(set.dir + "/" + file);
    config << slot << " { filename: '" << file << "' device_bitmask: " << (1u << i) << " }\n";
  }
  return config.good();
}

bool MakeTuningSets() {
  g_scratch = qvr_bench::MakeScratchDir("qvr_whole_run");
  if (g_scratch.empty()) return false;
  return MakeTuningSet("max", QVR_MAX_TUNING_FILE, g_maximum) &&
         MakeTuningSet("min", QVR_MIN_TUNING_FILE, g_minimal);
}

// The environment without the simulator's preload: for programs that answer
// the driver in their own process (and their bare counterpart), nothing of
// the simulator may be paid.
std::vector<char*> PlainEnvironment() {
  std::vector<char*> env;
  for (char** e = environ; *e != nullptr; ++e) {
    if (std::strncmp(*e, "LD_PRELOAD=", 11) != 0 && std::strncmp(*e, "UMOCKDEV_", 9) != 0) env.push_back(*e);
  }
  env.push_back(nullptr);
  return env;
}

// One run, with its standard output and error kept for the log check.
struct LoggedRun {
  qvr_bench::ChildRun run;
  std::string output;
};

LoggedRun RunChild(const std::vector<std::string>& argv, bool plain = false) {
  const std::string outPath = g_scratch + "/output";
  std::vector<char*> env = PlainEnvironment();
  LoggedRun logged{qvr_bench::RunChild(argv, outPath, plain ? env.data() : nullptr), {}};
  std::ifstream out(outPath);
  std::ostringstream text;
  text << out.rdbuf();
  logged.output = text.str();
  return logged;
}

void Measure(benchmark::State& state, const char* name, const std::vector<std::string>& argv,
             const char* mustLog, bool plain = false) {
  Totals& totals = g_totals[name];
  for (auto _ : state) {
    const LoggedRun logged = RunChild(argv, plain);
    const qvr_bench::ChildRun& run = logged.run;
    if (!run.ok || (mustLog != nullptr && logged.output.find(mustLog) == std::string::npos)) {
      state.SkipWithError(("run failed: " + logged.output.substr(0, 2000)).c_str());
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

void BM_Configurator(benchmark::State& state, const char* name, const TuningSet* set) {
  Measure(state, name, {QVR_CONFIGURATOR_EXE, set->dir}, "load_settings() returns 0.");
}

void BM_BareParse(benchmark::State& state, const char* name, const TuningSet* set) {
  std::vector<std::string> argv = {QVR_BARE_PARSE_EXE};
  argv.insert(argv.end(), set->files.begin(), set->files.end());
  Measure(state, name, argv, nullptr);
}

// The driver answered in the configurator's own process, against the work
// no design can avoid; neither pays anything of the simulator.
void BM_ConfiguratorInProcess(benchmark::State& state, const char* name, const TuningSet* set) {
  Measure(state, name, {QVR_CONFIGURATOR_INPROC_EXE, set->dir}, "load_settings() returns 0.", true);
}

void BM_BareRun(benchmark::State& state, const char* name, const TuningSet* set) {
  Measure(state, name, {QVR_BARE_RUN_EXE, set->dir}, nullptr, true);
}

void BM_DriverRequests(benchmark::State& state, const char* name, bool requests) {
  std::vector<std::string> argv = {QVR_DRIVER_REQUESTS_EXE};
  if (!requests) argv.push_back("--open-only");
  Measure(state, name, argv, nullptr);
}

double MeanMs(const Totals& t, double Totals::*field) { return 1e3 * (t.*field) / t.runs; }

// Peak resident set: the largest of the runs, and the median.
void InProcessSummary() {
  for (const char* name : {"inproc", "bare-run", "inproc-min", "bare-run-min"}) {
    if (g_totals[name].runs == 0) return;
  }
  std::printf("\nwhole run with the driver in the configurator's process, against the unavoidable work\n");
  // On maximum-size files the configurator costs no more than parsing alone.
  for (const auto& [set, configurator, bare, goal] :
       {std::make_tuple("six maximum-size files", "inproc", "bare-run", 1.00),
        std::make_tuple("six minimal files", "inproc-min", "bare-run-min", 1.05)}) {
    Totals& c = g_totals[configurator];
    Totals& b = g_totals[bare];
    const double ratio = MedianCpuMs(c) / MedianCpuMs(b);
    const long extraKb = c.maxRssKb - b.maxRssKb;
    std::printf("  %s: configurator cpu median %.2f ms, bare run %.2f ms, ratio %.3f (goal <= %.2f: %s); "
                "peak rss %ld kB vs %ld kB, %+ld kB (goal <= +512 kB: %s)\n",
                set, MedianCpuMs(c), MedianCpuMs(b), ratio, goal, ratio <= goal ? "met" : "MISSED", c.maxRssKb,
                b.maxRssKb, extraKb, extraKb <= 512 ? "met" : "MISSED");
  }
}

void Summarise() {
  InProcessSummary();
  for (const char* name :
       {"configurator", "bare", "configurator-min", "bare-min", "requests", "open-only"}) {
    if (g_totals[name].runs == 0) return;
  }
  Totals& c = g_totals["configurator"];
  Totals& b = g_totals["bare"];
  Totals& cMin = g_totals["configurator-min"];
  Totals& bMin = g_totals["bare-min"];
  std::printf("\nwhole run, six maximum-size tuning files (%d and %d runs)\n", c.runs, b.runs);
  const auto line = [](const char* name, Totals& t) {
    std::printf("  %-22s cpu median %6.2f ms, mean %6.2f ms (user %5.2f, sys %5.2f)  wall %6.2f ms  "
                "peak rss %5ld kB\n",
                name, MedianCpuMs(t), MeanMs(t, &Totals::cpuSeconds), MeanMs(t, &Totals::userSeconds),
                MeanMs(t, &Totals::systemSeconds), MeanMs(t, &Totals::wallSeconds), t.maxRssKb);
  };
  line("qvr_configurator", c);
  line("bare_parse", b);
  line("qvr_configurator, min", cMin);
  line("bare_parse, min", bMin);
  const double ratio = MedianCpuMs(c) / MedianCpuMs(b);
  const double meanRatio = MeanMs(c, &Totals::cpuSeconds) / MeanMs(b, &Totals::cpuSeconds);
  std::printf("  cpu ratio of medians %.3f, of means %.3f (goal <= 1.20: %s)\n", ratio, meanRatio,
              ratio <= 1.2 ? "met" : "MISSED");
  std::printf("  configurator peak rss %.2f MB (goal <= 8 MB: %s)\n", c.maxRssKb / 1024.0,
              c.maxRssKb <= 8 * 1024 ? "met" : "MISSED");
  // What the maximum-size data adds to each program, over the same run on
  // minimal files: the fixed cost of a run (start-up, configuration, log,
  // driver requests) taken out.
  const double cData = MedianCpuMs(c) - MedianCpuMs(cMin);
  const double bData = MedianCpuMs(b) - MedianCpuMs(bMin);
  std::printf("  cost of the data: configurator +%.2f ms, bare parse +%.2f ms, ratio %.3f; "
              "fixed cost of a run: configurator %.2f ms, bare parse %.2f ms\n",
              cData, bData, bData > 0 ? cData / bData : 0.0, MedianCpuMs(cMin), MedianCpuMs(bMin));
  // The simulator's transport of the sixteen requests, paid inside the
  // configurator process; a kernel driver does not cost it.
  const double transport = MedianCpuMs(g_totals["requests"]) - MedianCpuMs(g_totals["open-only"]);
  const double own = MedianCpuMs(c) - transport;
  std::printf("  driver requests through the simulator: %.2f ms; configurator without them %.2f ms, "
              "ratio %.3f\n",
              transport, own, own / MedianCpuMs(b));
}

}  // namespace

BENCHMARK_CAPTURE(BM_BareParse, max, "bare", &g_maximum)
    ->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK_CAPTURE(BM_Configurator, max, "configurator", &g_maximum)
    ->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK_CAPTURE(BM_BareParse, min, "bare-min", &g_minimal)
    ->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK_CAPTURE(BM_Configurator, min, "configurator-min", &g_minimal)
    ->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK_CAPTURE(BM_ConfiguratorInProcess, max, "inproc", &g_maximum)
    ->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK_CAPTURE(BM_BareRun, max, "bare-run", &g_maximum)
    ->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK_CAPTURE(BM_ConfiguratorInProcess, min, "inproc-min", &g_minimal)
    ->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK_CAPTURE(BM_BareRun, min, "bare-run-min", &g_minimal)
    ->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK_CAPTURE(BM_DriverRequests, all, "requests", true)
    ->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK_CAPTURE(BM_DriverRequests, open_only, "open-only", false)
    ->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);

int main(int argc, char** argv) {
  if (std::getenv("UMOCKDEV_DIR") == nullptr) {
    std::fprintf(stderr, "whole_run_bench: run it under korva-driver-sim "
                         "(scripts/bench-whole-run.sh)\n");
    return 2;
  }
  if (!MakeTuningSets()) {
    std::fprintf(stderr, "whole_run_bench: cannot set up the tuning files in %s\n", g_scratch.c_str());
    return 1;
  }
  return qvr_bench::RunBenchmarks(argc, argv, Summarise, g_scratch);
}
