// Helpers shared by the whole suite: files and private scratch directories,
// printf into a string, little-endian words, the configurator's log lines
// and tuning files built around one settings record.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "qvrcsPB.pb.h"

namespace qvr_test {

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;
using com::qvr::pb::korva_v1_1::KorvaSettings;
using com::qvr::pb::wbn::Qvrcs;

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in.is_open()) << "cannot read " << path;
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

inline void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
  EXPECT_TRUE(out.good()) << "cannot write " << path;
}

__attribute__((format(printf, 1, 2))) inline std::string Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(static_cast<size_t>(length) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, args);
  va_end(args);
  text.resize(static_cast<size_t>(length));
  return text;
}

// Little-endian words as bytes, for expected driver records.
inline Bytes Words(const std::vector<uint32_t>& words) {
  Bytes bytes;
  for (uint32_t word : words) {
    for (int shift = 0; shift < 32; shift += 8) bytes.push_back(static_cast<uint8_t>(word >> shift));
  }
  return bytes;
}

// The configurator's log messages in liblog's standard error lines
// ("TAG I MM-DD HH:MM:SS  pid  tid message"). A line without the prefix that
// follows a message continues it (a message may hold a line break), unless it
// is another component's line (protobuf, the simulator, a sanitizer).
inline Lines ParseLog(const std::string& stderrText) {
  static const std::regex kLine(
      R"(^QVR_KORVA \(qvr_configurator\) I \d\d-\d\d \d\d:\d\d:\d\d +\d+ +\d+ (.*)$)");
  static const char* const kForeign[] = {"[libprotobuf", "korva-driver-sim:", "==", "ERROR: libumockdev"};
  Lines messages;
  bool continuable = false;
  std::istringstream lines(stderrText);
  std::smatch match;
  for (std::string line; std::getline(lines, line);) {
    bool foreign = false;
    for (const char* prefix : kForeign) foreign = foreign || line.rfind(prefix, 0) == 0;
    if (std::regex_match(line, match, kLine)) {
      messages.push_back(match[1]);
      continuable = true;
    } else if (continuable && !foreign) {
      messages.back() += "\n" + line;
    } else {
      continuable = false;
    }
  }
  return messages;
}

// A private scratch directory per test, removed (and checked removed) after it.
class ScratchDirTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = testing::TempDir() + "qvr_test_XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr) << std::strerror(errno);
    dir_ = std::filesystem::absolute(pattern).string();
  }
  void TearDown() override {
    if (dir_.empty()) return;
    std::error_code error;
    std::filesystem::remove_all(dir_, error);
    EXPECT_FALSE(error) << "cannot remove " << dir_ << ": " << error.message();
    EXPECT_FALSE(std::filesystem::exists(dir_)) << dir_ << " is left behind";
  }

  const std::string& dir() const { return dir_; }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  // Writes `bytes` to `name` in the scratch directory; returns its path.
  std::string Write(const std::string& name, const std::string& bytes) const {
    WriteFile(Path(name), bytes);
    return Path(name);
  }

 private:
  std::string dir_;
};

// A tuning file whose selected settings (the first workspace, route and
// technology) are `settings`.
inline Qvrcs TuningWith(const KorvaSettings& settings) {
  Qvrcs tuning;
  *tuning.add_workspace()->add_routeconfiguration()->add_tech()->mutable_korva_v1_1() = settings;
  return tuning;
}

inline KorvaSettings& SettingsOf(Qvrcs& tuning) {
  return *tuning.mutable_workspace(0)->mutable_routeconfiguration(0)->mutable_tech(0)->mutable_korva_v1_1();
}

inline com::qvr::pb::korva_v1_1::Postmix& PostmixOf(Qvrcs& tuning) { return *SettingsOf(tuning).mutable_postmix(); }

}  // namespace qvr_test
