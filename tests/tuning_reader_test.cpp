// The tuning file reader, through small binary tuning files written to a
// private temporary directory: results, log lines and what reaches the
// payload.
#include "configurator/tuning_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "configurator/log.h"
#include "configurator/payload.h"
#include "qvrcs/qvrcs.h"
#include "qvrcs/record_layout.h"
#include "qvrcsPB.pb.h"

namespace {

using com::qvr::pb::korva_v1_1::KorvaSettings;
using com::qvr::pb::wbn::Qvrcs;
using testing::HasSubstr;

constexpr uint8_t kFill = 0xA5;
using Payload = std::vector<uint8_t>;

// Number of log lines in captured standard error.
size_t LineCount(const std::string& text) {
  size_t lines = 0;
  for (char c : text) lines += c == '\n';
  return lines;
}

class TuningReaderTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = testing::TempDir() + "tuning_reader_XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }

  void TearDown() override {
    for (const std::string& path : files_) std::remove(path.c_str());
    ASSERT_EQ(rmdir(dir_.c_str()), 0) << "temporary directory not empty: " << dir_;
    struct stat st {};
    EXPECT_NE(stat(dir_.c_str(), &st), 0) << dir_ << " still exists";
  }

  std::string Write(const std::string& name, const std::string& bytes) {
    const std::string path = dir_ + "/" + name;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
    EXPECT_TRUE(out.good()) << path;
    files_.push_back(path);
    return path;
  }

  std::string WriteTuning(const std::string& name, const Qvrcs& message) {
    return Write(name, message.SerializeAsString());
  }

  // Runs the reader over `path` into a payload prefilled with kFill and
  // keeps what it logged.
  int32_t Read(const char* path, Payload& payload) {
    payload.assign(qvr::kCacheBlockSize, kFill);
    testing::internal::CaptureStderr();
    const int32_t result = QVRCS_GetPremixData(path, payload.data());
    log_ = testing::internal::GetCapturedStderr();
    return result;
  }

  std::string dir_;
  std::vector<std::string> files_;
  std::string log_;
};

// A tuning file whose first selection path leads to `settings`.
Qvrcs TuningWith(const KorvaSettings& settings) {
  Qvrcs message;
  *message.add_workspace()->add_routeconfiguration()->add_tech()->mutable_korva_v1_1() = settings;
  return message;
}

// Settings that touch both blocks: a premix gain and a postmix room.
KorvaSettings SomeSettings() {
  KorvaSettings settings;
  settings.mutable_premix()->set_stream_gain(-6);
  auto* postmix = settings.mutable_postmix();
  auto* room = postmix->mutable_model()->add_rooms();
  room->set_uuid("room");
  auto* table = room->add_coefftables();
  table->set_samplerate(48000);
  for (int v : {11, 22, 33}) table->add_coeff_16(v);
  postmix->add_multichroom()->set_uuid("room");
  return settings;
}

// The payload that the two converters make of `settings` at 48000 Hz,
// with the untouched areas still at kFill.
Payload Expected(const KorvaSettings& settings) {
  ConversionContext context;
  QVRCS_InitContext(context, 48000);
  qvrcs::PremixBlock premix{};
  qvrcs::PostmixBlock postmix{};
  EXPECT_EQ(QVRCS_ConvertPremix(context, settings, premix, true), 0);
  EXPECT_EQ(QVRCS_ConvertPostmix(context, settings, postmix, true, {}), 0);
  Payload payload(qvr::kCacheBlockSize, kFill);
  std::copy(premix.begin(), premix.end(), payload.begin() + qvr::kPremixPayloadOffset);
  std::copy(postmix.begin(), postmix.end(), payload.begin() + qvr::kPostmixPayloadOffset);
  return payload;
}

TEST_F(TuningReaderTest, ConvertsTheFirstSettingsIntoBothPayloadRanges) {
  const KorvaSettings settings = SomeSettings();
  const std::string path = WriteTuning("good.qvrcs", TuningWith(settings));
  Payload payload;
  ASSERT_EQ(Read(path.c_str(), payload), 0);
  EXPECT_EQ(log_, "");
  EXPECT_EQ(payload, Expected(settings));
  // The room's first coefficient, at its place in the postmix block.
  EXPECT_EQ(payload[qvr::kPostmixPayloadOffset + qvrcs::kMultichRoomSlot + qvrcs::kRoomCoefs], 11);
}

TEST_F(TuningReaderTest, OnlyTheFirstElementOfEachListAndOnlyKorvaV11AreRead) {
  Qvrcs message = TuningWith(SomeSettings());
  auto* first = message.mutable_workspace(0);
  first->set_applyto(com::qvr::pb::wbn::AT_CURRENT);
  KorvaSettings other;
  other.mutable_premix()->set_stream_gain(99);
  *first->add_routeconfiguration()->add_tech()->mutable_korva_v1_1() = other;
  *first->mutable_routeconfiguration(0)->add_tech()->mutable_korva_v1_1() = other;
  *message.add_workspace()->add_routeconfiguration()->add_tech()->mutable_korva_v1_1() = other;
  const std::string twoWorkspaces = WriteTuning("two.qvrcs", message);

  Payload payload;
  ASSERT_EQ(Read(twoWorkspaces.c_str(), payload), 0);
  EXPECT_EQ(payload, Expected(SomeSettings()));

  // A technology record with only the second settings version: the
  // converters see default korva_v1_1 settings.
  Qvrcs secondVersion;
  auto* tech = secondVersion.add_workspace()->add_routeconfiguration()->add_tech();
  tech->mutable_korva()->mutable_premix()->set_stream_gain(5);
  tech->mutable_korva()->mutable_postmix()->set_postmix_gain(7);
  const std::string korvaOnly = WriteTuning("korva-only.qvrcs", secondVersion);
  ASSERT_EQ(Read(korvaOnly.c_str(), payload), 0);
  EXPECT_EQ(payload, Expected(KorvaSettings{}));
}

TEST_F(TuningReaderTest, ConversionFailureIsLoggedAndNothingIsCopied) {
  KorvaSettings settings = SomeSettings();
  settings.mutable_postmix()->add_frontroom()->set_uuid("nowhere");
  const std::string path = WriteTuning("unknown-room.qvrcs", TuningWith(settings));

  Payload payload;
  EXPECT_EQ(Read(path.c_str(), payload), -4);
  EXPECT_EQ(payload, Payload(qvr::kCacheBlockSize, kFill));
  EXPECT_THAT(log_, HasSubstr(QVR_LOG_TAG));
  EXPECT_THAT(log_, HasSubstr("Error: parsing Pre (res = 0) or Post (res = -999)\n"));
  EXPECT_EQ(LineCount(log_), 1u);
}

TEST_F(TuningReaderTest, FilesThatDoNotParseAreNotReported) {
  const std::string valid = TuningWith(SomeSettings()).SerializeAsString();
  const std::string truncated = valid.substr(0, valid.size() - 3);
  const std::string garbage("\x00\xff\x13\x37 not a tuning file", 22);
  for (const std::string& bytes : {truncated, garbage}) {
    ASSERT_FALSE(Qvrcs().ParseFromString(bytes));
    const std::string path = Write("bad" + std::to_string(files_.size()), bytes);
    Payload payload;
    EXPECT_EQ(Read(path.c_str(), payload), 0);
    EXPECT_EQ(log_, "");
    EXPECT_EQ(payload, Payload(qvr::kCacheBlockSize, kFill));
  }
}

TEST_F(TuningReaderTest, EmptySelectionListsFailWithALineNamingTheFile) {
  Qvrcs noRoute;
  noRoute.add_workspace();
  Qvrcs noTech;
  noTech.add_workspace()->add_routeconfiguration();
  struct Case {
    std::string name;
    std::string bytes;
    const char* list;
  } const cases[] = {
      {"empty.qvrcs", "", "workspace"},  // an empty file parses as an empty Qvrcs
      {"no-route.qvrcs", noRoute.SerializeAsString(), "routeConfiguration"},
      {"no-tech.qvrcs", noTech.SerializeAsString(), "tech"},
  };
  for (const Case& c : cases) {
    const std::string path = Write(c.name, c.bytes);
    Payload payload;
    EXPECT_EQ(Read(path.c_str(), payload), -4) << c.name;
    EXPECT_THAT(log_, HasSubstr("Error: " + path + " has no " + c.list));
    EXPECT_EQ(LineCount(log_), 1u) << log_;
    EXPECT_EQ(payload, Payload(qvr::kCacheBlockSize, kFill));
  }
}

TEST_F(TuningReaderTest, BadArgumentsAndMissingFiles) {
  const std::string path = WriteTuning("good.qvrcs", TuningWith(SomeSettings()));
  Payload payload;
  EXPECT_EQ(Read(nullptr, payload), -4);
  EXPECT_THAT(log_, HasSubstr("Error:  filename or outData is NULL\n"));
  EXPECT_EQ(payload, Payload(qvr::kCacheBlockSize, kFill));

  testing::internal::CaptureStderr();
  EXPECT_EQ(QVRCS_GetPremixData(path.c_str(), nullptr), -4);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("Error:  filename or outData is NULL\n"));

  const std::string missing = dir_ + "/missing.qvrcs";
  EXPECT_EQ(Read(missing.c_str(), payload), -4);
  EXPECT_THAT(log_, HasSubstr(std::string(QVR_LOG_TAG) + " I "));
  EXPECT_THAT(log_, HasSubstr("Error: could not open " + missing + "\n"));
  EXPECT_EQ(LineCount(log_), 1u);
  EXPECT_EQ(payload, Payload(qvr::kCacheBlockSize, kFill));
}

}  // namespace
