// Running a program under korva-driver-sim and reading back what happened:
// exit status, standard output, the Android log lines on standard error and
// every driver request the simulator captured. Every end-to-end test goes
// through E2eTest::RunSim.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "test_support.h"

namespace e2e {

using qvr_test::Format;
using qvr_test::ParseLog;
using qvr_test::ReadFile;
using qvr_test::Words;
using qvr_test::WriteFile;

// One driver request as the simulator recorded it.
struct Request {
  uint32_t seq = 0;
  std::string node;
  std::string name;  // SET_CACHE_SIZE, GET_PARAM, ... or UNKNOWN
  uint32_t code = 0;
  int64_t answer = 0;
  int error = 0;
  std::vector<uint8_t> arg;  // argument bytes exactly as received
};

struct RunResult {
  int status = -1;  // the program's exit status, passed on by the simulator
  std::string out;  // standard output
  std::string err;  // standard error, raw
  std::vector<std::string> log;  // Android log messages, in order
  std::vector<Request> requests;
  double seconds = 0;  // wall time of the whole run

  // Requests of one kind, in order.
  std::vector<Request> Of(const std::string& name) const;
  // Number of log messages equal to `message`.
  size_t Count(const std::string& message) const;
  // The driver handle the run logged ("Korva driver handle N."), or -1.
  int Handle() const;
};

// A simulator run under way.
struct SimProcess {
  pid_t pid = -1;
  std::string runDir;
  std::string captureDir;  // the options' --capture folder, or one in runDir
  std::chrono::steady_clock::time_point start;
};

class E2eTest : public qvr_test::ScratchDirTest {
 protected:
  // RunSim in two steps: starts the run, and waits for its end.
  SimProcess StartSim(const std::vector<std::string>& simOptions, const std::vector<std::string>& command);
  RunResult WaitSim(const SimProcess& sim);
  // Runs `korva-driver-sim --capture DIR simOptions... -- command...` (without
  // its own --capture when the options hold one) and reads the capture.
  RunResult RunSim(const std::vector<std::string>& simOptions, const std::vector<std::string>& command);
  // Runs the configurator under the simulator with `args` after the program name.
  RunResult RunConfigurator(const std::vector<std::string>& simOptions, const std::vector<std::string>& args);

 private:
  int runs_ = 0;
};

extern const char* const kConfiguratorExe;
extern const char* const kDriverSimExe;
extern const char* const kFaketimeExe;

}  // namespace e2e
