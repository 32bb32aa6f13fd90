// Whole-process measurement for the benchmarks: one run of a program with its
// CPU time, wall time and peak RSS, the median of such samples, and a scratch
// folder for the files the runs read.
#pragma once

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace qvr_bench {

struct ChildRun {
  bool ok = false;  // started and exited with status 0
  double userSeconds = 0;
  double systemSeconds = 0;
  double cpuSeconds = 0;  // user + system, the workers it waited for included
  double wallSeconds = 0;
  long maxRssKb = 0;
};

// Runs `argv` with standard input from /dev/null and standard output and
// error into `outputPath`, in `env` (this process's environment when null).
inline ChildRun RunChild(const std::vector<std::string>& argv, const std::string& outputPath,
                         char* const* env = nullptr) {
  ChildRun run;
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  const auto start = std::chrono::steady_clock::now();
  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), env != nullptr ? env : environ);
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
  run.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  return run;
}

// Median of per-run samples: steadier than the mean on a shared machine.
inline double Median(std::vector<double> samples) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  const size_t middle = samples.size() / 2;
  return samples.size() % 2 == 1 ? samples[middle] : (samples[middle - 1] + samples[middle]) / 2;
}

// A new folder under $TMPDIR (or /tmp) named after `prefix`; empty on failure.
inline std::string MakeScratchDir(const std::string& prefix) {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/" + prefix + "_XXXXXX";
  return mkdtemp(pattern.data()) != nullptr ? pattern : std::string();
}

// Runs the registered benchmarks, prints the program's own summary after
// Google Benchmark's table and removes the scratch folder.
inline int RunBenchmarks(int& argc, char** argv, void (*summarise)(), const std::string& scratch) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  summarise();
  std::error_code ignored;
  std::filesystem::remove_all(scratch, ignored);
  return 0;
}

}  // namespace qvr_bench
