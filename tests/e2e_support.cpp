#include "e2e_support.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>

extern char** environ;

namespace e2e {

const char* const kConfiguratorExe = QVR_CONFIGURATOR_EXE;
const char* const kDriverSimExe = QVR_DRIVER_SIM_EXE;
const char* const kFaketimeExe = QVR_FAKETIME_EXE;

namespace {

namespace fs = std::filesystem;

// The environment of a run: ours, plus what a sanitizer build needs to run
// under the simulator's preload library.
std::vector<std::string> RunEnvironment() {
  std::vector<std::string> env;
  bool sawAsan = false;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    std::string var = *entry;
    if (var.rfind("ASAN_OPTIONS=", 0) == 0) {
      sawAsan = true;
      if (var.find("verify_asan_link_order") == std::string::npos) var += ":verify_asan_link_order=0";
    }
    env.push_back(var);
  }
  if (!sawAsan) env.push_back("ASAN_OPTIONS=verify_asan_link_order=0");
  return env;
}

std::vector<char*> Pointers(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (std::string& s : strings) pointers.push_back(s.data());
  pointers.push_back(nullptr);
  return pointers;
}

std::vector<Request> ReadCapture(const std::string& captureDir) {
  std::vector<Request> requests;
  std::ifstream journal(captureDir + "/requests.jsonl");
  std::string line;
  while (std::getline(journal, line)) {
    const nlohmann::json record = nlohmann::json::parse(line, nullptr, false);
    if (record.is_discarded()) {
      ADD_FAILURE() << "unreadable capture line: " << line;
      continue;
    }
    Request request;
    request.seq = record.at("seq").get<uint32_t>();
    request.node = record.at("node").get<std::string>();
    request.name = record.at("request").get<std::string>();
    request.code = record.at("code").get<uint32_t>();
    request.answer = record.at("answer").get<int64_t>();
    request.error = record.at("errno").get<int>();
    const std::string bytes = ReadFile(captureDir + "/" + record.at("arg").get<std::string>());
    request.arg.assign(bytes.begin(), bytes.end());
    EXPECT_EQ(request.arg.size(), record.at("arg_size").get<size_t>()) << line;
    EXPECT_EQ(request.seq, requests.size() + 1) << "requests are numbered in arrival order";
    requests.push_back(std::move(request));
  }
  return requests;
}

}  // namespace

std::vector<Request> RunResult::Of(const std::string& name) const {
  std::vector<Request> matching;
  for (const Request& request : requests) {
    if (request.name == name) matching.push_back(request);
  }
  return matching;
}

size_t RunResult::Count(const std::string& message) const {
  return static_cast<size_t>(std::count(log.begin(), log.end(), message));
}

int RunResult::Handle() const {
  for (const std::string& line : log) {
    int fd = -1;
    if (std::sscanf(line.c_str(), "Korva driver handle %d.", &fd) == 1) return fd;
  }
  ADD_FAILURE() << "no driver handle line";
  return -1;
}

SimProcess E2eTest::StartSim(const std::vector<std::string>& simOptions, const std::vector<std::string>& command) {
  SimProcess sim;
  sim.runDir = dir() + "/run" + std::to_string(++runs_);
  sim.captureDir = sim.runDir + "/capture";
  EXPECT_TRUE(fs::create_directories(sim.runDir)) << sim.runDir;
  const std::string outPath = sim.runDir + "/stdout";
  const std::string errPath = sim.runDir + "/stderr";

  std::vector<std::string> argv = {kDriverSimExe};
  const auto capture = std::find(simOptions.begin(), simOptions.end(), "--capture");
  if (capture == simOptions.end()) {
    argv.insert(argv.end(), {"--capture", sim.captureDir});
  } else if (capture + 1 != simOptions.end()) {
    sim.captureDir = capture[1];
  }
  argv.insert(argv.end(), simOptions.begin(), simOptions.end());
  argv.push_back("--");
  argv.insert(argv.end(), command.begin(), command.end());
  std::vector<std::string> env = RunEnvironment();

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  sim.start = std::chrono::steady_clock::now();
  const int spawned = posix_spawn(&sim.pid, kDriverSimExe, &actions, nullptr, Pointers(argv).data(),
                                  Pointers(env).data());
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    ADD_FAILURE() << "cannot run " << kDriverSimExe << ": " << std::strerror(spawned);
    sim.pid = -1;
  }
  return sim;
}

RunResult E2eTest::WaitSim(const SimProcess& sim) {
  RunResult result;
  if (sim.pid < 0) return result;
  int status = 0;
  while (waitpid(sim.pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - sim.start).count();
  EXPECT_TRUE(WIFEXITED(status)) << "simulator ended abnormally, wait status " << status;
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.out = ReadFile(sim.runDir + "/stdout");
  result.err = ReadFile(sim.runDir + "/stderr");
  result.log = ParseLog(result.err);
  result.requests = ReadCapture(sim.captureDir);
  return result;
}

RunResult E2eTest::RunSim(const std::vector<std::string>& simOptions, const std::vector<std::string>& command) {
  return WaitSim(StartSim(simOptions, command));
}

RunResult E2eTest::RunConfigurator(const std::vector<std::string>& simOptions,
                                   const std::vector<std::string>& args) {
  std::vector<std::string> command = {kConfiguratorExe};
  command.insert(command.end(), args.begin(), args.end());
  return RunSim(simOptions, command);
}

}  // namespace e2e
