// The generated example tuning set: configurator.cfg names six distinct files.
// (What each file uploads is pinned by the golden fixtures, that every locator
// of every file loads by the golden test, and that every slot's file loads
// without a warning by the qvrcs tool test's check of the example set.)
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "configurator.pb.h"
#include "test_support.h"

namespace {

TEST(ExampleConfig, NamesSixDistinctTuningFilesWithDevices) {
  com::qvr::korva::configurator::qdsp6::ConfiguratorConfig config;
  const std::string text = qvr_test::ReadFile(std::string(QVR_EXAMPLES_DIR) + "/configurator.cfg");
  ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &config));
  std::set<std::string> files;
  for (const auto* slot : {&config.attached0(), &config.attached1(), &config.lineout0(), &config.bluetooth0(),
                           &config.combo0(), &config.other()}) {
    files.insert(slot->filename());
    EXPECT_NE(slot->device_bitmask(), 0u) << slot->filename();
  }
  EXPECT_EQ(files.size(), 6u);
}

}  // namespace
