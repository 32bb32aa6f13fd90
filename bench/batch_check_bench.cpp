// Whole-process cost of `qvrcs check` over many search paths in one run,
// side by side with bare_parse reading and parsing the same files in one
// run: the check's overhead over the parse it cannot avoid. Each iteration
// spawns one program and waits for it; its CPU time (user + system) comes
// from its rusage. The check runs on one thread (-j 1) for the CPU ratio
// (goal: at most 1.3 times the bare parse), and on two for the speed-up in
// wall time (goal: at least 1.8 on two cores).
//
//   batch_check_bench [--benchmark_... options]
//   QVR_BATCH_SETS  number of generated sets (default 1000)
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "bench/child_run.h"
#include "configurator/config_file.h"
#include "configurator/settings.h"


namespace {

namespace fs = std::filesystem;

struct Samples {
  std::vector<double> cpu;   // seconds per run
  std::vector<double> wall;  // seconds per run
};

std::string g_scratch;
std::vector<std::string> g_sets;   // search paths
std::vector<std::string> g_files;  // every slot's file, in set order
std::map<std::string, Samples> g_samples;

// One set per folder: the example set's configurator.cfg and its six files,
// linked rather than copied (the reading is the same).
bool MakeSets(size_t count) {
  g_scratch = qvr_bench::MakeScratchDir("qvr_batch");
  if (g_scratch.empty()) return false;
  com::qvr::korva::configurator::qdsp6::ConfiguratorConfig config;
  const std::string examples = QVR_EXAMPLES_DIR;
  if (qvr::ReadConfiguratorConfig(qvr::JoinPath(examples, qvr::kConfigFileName), config, nullptr) !=
      qvr::ConfigRead::kOk) {
    return false;
  }
  for (size_t i = 0; i < count; ++i) {
    const std::string dir = g_scratch + "/set" + std::to_string(i);
    std::error_code error;
    fs::create_directory(dir, error);
    fs::create_hard_link(qvr::JoinPath(examples, qvr::kConfigFileName), qvr::JoinPath(dir, qvr::kConfigFileName),
                         error);
    if (error) return false;
    for (const qvr::ConfigSlot& slot : qvr::kConfigSlots) {
      const std::string name = (config.*slot.get)().filename();
      const std::string file = qvr::JoinPath(dir, name);
      if (!fs::exists(file)) fs::create_hard_link(qvr::JoinPath(examples, name), file, error);
      if (error) return false;
      g_files.push_back(file);
    }
    g_sets.push_back(dir);
  }
  return true;
}

void Measure(benchmark::State& state, const std::string& name, const std::vector<std::string>& argv) {
  Samples& samples = g_samples[name];
  for (auto _ : state) {
    const qvr_bench::ChildRun run = qvr_bench::RunChild(argv, "/dev/null");
    if (!run.ok) {
      state.SkipWithError((name + ": the run failed").c_str());
      return;
    }
    state.SetIterationTime(run.wallSeconds);
    samples.cpu.push_back(run.cpuSeconds);
    samples.wall.push_back(run.wallSeconds);
  }
  state.counters["cpu_ms"] = 1e3 * qvr_bench::Median(samples.cpu);
}

void BM_BareParse(benchmark::State& state) {
  std::vector<std::string> argv = {QVR_BARE_PARSE_EXE};
  argv.insert(argv.end(), g_files.begin(), g_files.end());
  Measure(state, "bare", argv);
}

void BM_Check(benchmark::State& state) {
  const std::string jobs = std::to_string(state.range(0));
  std::vector<std::string> argv = {QVR_QVRCS_EXE, "-q", "check", "-j", jobs};
  argv.insert(argv.end(), g_sets.begin(), g_sets.end());
  Measure(state, "check -j " + jobs, argv);
}

void Summarise() {
  const Samples& bare = g_samples["bare"];
  const Samples& one = g_samples["check -j 1"];
  if (bare.cpu.empty() || one.cpu.empty()) return;
  std::printf("\n%zu sets of six slots, %zu runs each\n", g_sets.size(), bare.cpu.size());
  for (const auto& [name, samples] : g_samples) {
    std::printf("  %-14s cpu median %8.1f ms  wall median %8.1f ms\n", name.c_str(), 1e3 * qvr_bench::Median(samples.cpu),
                1e3 * qvr_bench::Median(samples.wall));
  }
  const double ratio = qvr_bench::Median(one.cpu) / qvr_bench::Median(bare.cpu);
  std::printf("  check -j 1 / bare parse, cpu: %.2f (goal <= 1.3: %s)\n", ratio, ratio <= 1.3 ? "met" : "MISSED");
  for (const auto& [name, samples] : g_samples) {
    if (name.rfind("check -j ", 0) != 0 || name == "check -j 1") continue;
    const double speedUp = qvr_bench::Median(one.wall) / qvr_bench::Median(samples.wall);
    std::printf("  %s speed-up in wall time over -j 1: %.2f (goal >= 1.8 on two idle cores: %s)\n", name.c_str(),
                speedUp, speedUp >= 1.8 ? "met" : "MISSED");
  }
}

}  // namespace

BENCHMARK(BM_BareParse)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_Check)->Arg(1)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);

int main(int argc, char** argv) {
  const char* count = std::getenv("QVR_BATCH_SETS");
  if (!MakeSets(count != nullptr ? std::strtoul(count, nullptr, 10) : 1000)) {
    std::fprintf(stderr, "batch_check_bench: cannot set up the sets in %s\n", g_scratch.c_str());
    return 1;
  }
  return qvr_bench::RunBenchmarks(argc, argv, Summarise, g_scratch);
}
