// ReadConfiguratorConfig parses through a pool of its own; whatever the text,
// it must end exactly as a text parse straight into the generated message:
// same outcome, same errors at the same places, same fields.
#include <google/protobuf/descriptor.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "configurator/config_file.h"

namespace {

namespace gp = google::protobuf;
using com::qvr::korva::configurator::qdsp6::ConfiguratorConfig;

class ErrorLog : public gp::io::ErrorCollector {
 public:
  void AddError(int line, gp::io::ColumnNumber column, const std::string& message) override {
    lines.push_back("E " + std::to_string(line) + ":" + std::to_string(column) + " " + message);
  }
  void AddWarning(int line, gp::io::ColumnNumber column, const std::string& message) override {
    lines.push_back("W " + std::to_string(line) + ":" + std::to_string(column) + " " + message);
  }
  std::vector<std::string> lines;
};

std::string CompleteText() {
  std::string text = "# six slots\n";
  const char* const slots[] = {"attached0", "attached1", "lineout0", "bluetooth0", "combo0", "other"};
  for (int i = 0; i < 6; ++i) {
    text += std::string(slots[i]) + " { filename: '" + slots[i] + ".bin' device_bitmask: " + std::to_string(1 << i) + " }\n";
  }
  return text;
}

class ConfigFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/qvr_config_file_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    unlink(Path().c_str());
    rmdir(dir_.c_str());
  }
  std::string Path() const { return dir_ + "/configurator.cfg"; }
  void Write(const std::string& text) {
    std::ofstream(Path(), std::ios::binary | std::ios::trunc) << text;
  }
  std::string dir_;
};

// Runs first in the binary: nothing else has asked for descriptors yet.
TEST_F(ConfigFileTest, ReadingLeavesProtobufsOwnSchemaUnbuilt) {
  Write(CompleteText());
  ConfiguratorConfig config;
  ASSERT_EQ(qvr::ReadConfiguratorConfig(Path(), config, nullptr), qvr::ConfigRead::kOk);
  EXPECT_EQ(config.other().device_bitmask(), 32u);
  EXPECT_FALSE(gp::DescriptorPool::internal_generated_pool()->InternalIsFileLoaded(
      "google/protobuf/descriptor.proto"));
}

TEST_F(ConfigFileTest, EveryTextEndsAsTheGeneratedMessagesOwnParse) {
  const std::string complete = CompleteText();
  const std::string cases[] = {
      complete,
      complete + "other { filename: 'again' device_bitmask: 1 }\n",  // a slot given twice
      complete.substr(0, complete.rfind("other")),                   // a slot missing
      "attached0 { filename: 'a' }\n",                               // fields missing at two depths
      complete + "extra { filename: 'x' device_bitmask: 1 }\n",      // unknown slot
      complete + "[com.qvr.ext] { }\n",                             // extension syntax
      "attached0 { filename: 'a' device_bitmask: -1 }\n",            // uint32
      "attached0 { filename: 'a' device_bitmask: 4294967296 }\n",    // out of range
      "attached0 { filename: 'a\\x41\\n' device_bitmask: 0xffffffff }\n" + complete.substr(complete.find("attached1")),
      "attached0 < filename: \"a\" \"b\" device_bitmask: 1 >;\n" + complete.substr(complete.find("attached1")),
      "attached0 { filename: 'a' device_bitmask: 1\n",               // unclosed
      "",
      std::string("\x0a\x03\x0a\x01\x61", 5),                       // binary encoding instead of text
  };
  for (const std::string& text : cases) {
    Write(text);
    ConfiguratorConfig read;
    ErrorLog readErrors;
    const qvr::ConfigRead result = qvr::ReadConfiguratorConfig(Path(), read, &readErrors);

    ConfiguratorConfig direct;
    ErrorLog directErrors;
    gp::TextFormat::Parser parser;
    parser.RecordErrorsTo(&directErrors);
    const bool parsed = parser.ParseFromString(text, &direct);

    EXPECT_EQ(result, parsed ? qvr::ConfigRead::kOk : qvr::ConfigRead::kBadSyntax) << text;
    EXPECT_EQ(readErrors.lines, directErrors.lines) << text;
    if (parsed) {
      EXPECT_EQ(read.SerializeAsString(), direct.SerializeAsString()) << text;
    }
  }
}

TEST_F(ConfigFileTest, MissingFileCannotBeOpened) {
  ConfiguratorConfig config;
  EXPECT_EQ(qvr::ReadConfiguratorConfig(dir_ + "/absent.cfg", config, nullptr), qvr::ConfigRead::kCannotOpen);
}

}  // namespace
