// The default blocks and every example tuning file, read by the reader's own
// steps, against the whole payload they made when the fixture was made
// (tests/golden/<name>.hex), and the conversion's trace against the bytes it
// describes.
//
// The fixtures change only on purpose: run
//   cmake --build build --target update_goldens
// and review the difference.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "configurator/payload.h"
#include "configurator/tuning_reader.h"
#include "fuzz/block_checks.h"
#include "qvrcs/templates.h"

namespace {

constexpr size_t kRow = 32;
constexpr const char* kNames[] = {"headphones", "usb_headset", "lineout", "bluetooth", "combo", "speaker", "max"};

std::string Hex(const std::vector<uint8_t>& payload, const std::string& what) {
  std::string text = "# " + what +
                     "\n"
                     "# 32 bytes a line, by payload offset; lines not listed are zero. Regenerate with\n"
                     "# cmake --build build --target update_goldens (only when the output is meant to change).\n";
  char cell[24];
  for (size_t row = 0; row < payload.size(); row += kRow) {
    bool zero = true;
    for (size_t i = row; i < row + kRow; ++i) zero = zero && payload[i] == 0;
    if (zero) continue;
    std::snprintf(cell, sizeof cell, "%05zx: ", row);
    text += cell;
    for (size_t i = row; i < row + kRow; ++i) {
      std::snprintf(cell, sizeof cell, "%02x", payload[i]);
      text += cell;
    }
    text += "\n";
  }
  return text;
}

// Compares `payload` with tests/golden/<name>.hex, or rewrites the fixture
// when asked to.
void ExpectFixture(const std::string& name, const std::vector<uint8_t>& payload, const std::string& what) {
  const std::string fixture = std::string(QVR_GOLDEN_DIR) + "/" + name + ".hex";
  if (std::getenv("QVR_UPDATE_GOLDENS") != nullptr) {
    std::ofstream(fixture) << Hex(payload, what);
    return;
  }
  std::ifstream in(fixture);
  ASSERT_TRUE(in) << fixture;
  std::stringstream expected;
  expected << in.rdbuf();
  EXPECT_EQ(Hex(payload, what), expected.str()) << "the payload differs from " << fixture;
}

TEST(GoldenTest, TemplatesMatchTheirFixture) {
  std::vector<uint8_t> payload(qvr::kCacheBlockSize, 0);
  std::copy(qvrcs::kPremixTemplate.begin(), qvrcs::kPremixTemplate.end(), payload.begin() + qvr::kPremixPayloadOffset);
  std::copy(qvrcs::kPostmixTemplate.begin(), qvrcs::kPostmixTemplate.end(), payload.begin() + qvr::kPostmixPayloadOffset);
  ExpectFixture("templates", payload, "The two default blocks at their payload offsets.");
}

TEST(GoldenTest, ExamplesUploadTheirFixturesAndTheTraceTellsWhatTheBlocksHold) {
  std::set<qvrcs::SectionKind> loaded;
  for (const char* name : kNames) {
    SCOPED_TRACE(name);
    const std::string path = std::string(QVR_EXAMPLES_DIR) + "/" + name + ".bin";
    std::vector<uint8_t> payload(qvr::kCacheBlockSize, 0);
    auto reading = std::make_unique<qvr::TuningReading>();
    qvrcs::ConversionTrace trace;
    ASSERT_EQ(qvr::ReadTuningFile(path.c_str(), payload.data(), *reading, qvr::LogSink{}, &trace), 0);
    EXPECT_EQ(fuzz::TraceMismatch(trace, reading->premix.data(), reading->postmix.data()), "");
    // No locator of an example fails, and between them the examples load
    // rooms, headphone EQs and AEQs.
    for (const qvrcs::TraceEvent& e : trace.events) {
      if (e.kind != qvrcs::TraceKind::kLocator) continue;
      EXPECT_GE(e.status, 0) << qvrcs::Section(e.section).name << " locator " << e.locator;
      if (e.status == 0) loaded.insert(qvrcs::Section(e.section).kind);
    }

    ExpectFixture(name, payload,
                  "Cache block payload of examples/src/" + std::string(name) +
                      ".textproto as the configurator uploads it.");
  }
  EXPECT_EQ(loaded, (std::set<qvrcs::SectionKind>{qvrcs::SectionKind::kRoom, qvrcs::SectionKind::kHeadphoneEq,
                                                  qvrcs::SectionKind::kAeq}));
}

}  // namespace
