// Running a program under korva-driver-sim and reading back what happened:
// exit status, standard output, the Android log lines on standard error and
// every driver request the simulator captured. Every end-to-end test goes
// through E2eTest::RunSim.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace e2e {

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
};

// Log messages of the configurator's tag in liblog's standard error lines
// ("TAG I MM-DD HH:MM:SS  pid  tid message"). A line without the prefix that
// follows a message continues it (a message may contain a line break), unless
// it is another component's line (protobuf, the simulator, a sanitizer).
std::vector<std::string> ParseLog(const std::string& stderrText);

// printf into a std::string.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Little-endian words as bytes, for expected records.
std::vector<uint8_t> Words(const std::vector<uint32_t>& words);

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);

// A private scratch directory per test, removed (and checked removed) after it.
class E2eTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Runs `korva-driver-sim --capture DIR simOptions... -- command...`.
  RunResult RunSim(const std::vector<std::string>& simOptions,
                   const std::vector<std::string>& command);
  // Runs the configurator under the simulator with `args` after the program name.
  RunResult RunConfigurator(const std::vector<std::string>& simOptions,
                            const std::vector<std::string>& args);

  const std::string& dir() const { return dir_; }

 private:
  std::string dir_;
  int runs_ = 0;
};

extern const char* const kConfiguratorExe;
extern const char* const kDriverSimExe;
extern const char* const kFaketimeExe;

}  // namespace e2e
