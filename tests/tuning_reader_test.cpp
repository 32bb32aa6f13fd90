// The tuning file reader, through small binary tuning files written to a
// private directory: results, log lines and what reaches the payload.
#include "configurator/tuning_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "configurator/payload.h"
#include "qvrcs/qvrcs.h"
#include "qvrcs/record_layout.h"
#include "test_support.h"

namespace {

using qvr_test::KorvaSettings;
using qvr_test::Lines;
using qvr_test::Qvrcs;
using qvr_test::TuningWith;
using Payload = std::vector<uint8_t>;

constexpr uint8_t kFill = 0xA5;
const Payload kUntouched(qvr::kCacheBlockSize, kFill);

class TuningReaderTest : public qvr_test::ScratchDirTest {
 protected:
  // Runs the reader over `path` into a payload prefilled with kFill (or a
  // null payload) and keeps the log messages it wrote.
  int32_t Read(const char* path, Payload& payload, bool nullPayload = false) {
    payload = kUntouched;
    testing::internal::CaptureStderr();
    const int32_t result = QVRCS_GetPremixData(path, nullPayload ? nullptr : payload.data());
    log_ = qvr_test::ParseLog(testing::internal::GetCapturedStderr());
    return result;
  }

  Lines log_;
};

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
// with the fade areas still at kFill.
Payload Expected(const KorvaSettings& settings) {
  qvrcs::ConversionContext context;
  qvrcs::QVRCS_InitContext(context, 48000);
  qvrcs::PremixBlock premix{};
  qvrcs::PostmixBlock postmix{};
  EXPECT_EQ(qvrcs::QVRCS_ConvertPremix(context, settings, premix, true), 0);
  EXPECT_EQ(qvrcs::QVRCS_ConvertPostmix(context, settings, postmix, true, {}), 0);
  Payload payload = kUntouched;
  std::copy(premix.begin(), premix.end(), payload.begin() + qvr::kPremixPayloadOffset);
  std::copy(postmix.begin(), postmix.end(), payload.begin() + qvr::kPostmixPayloadOffset);
  return payload;
}

TEST_F(TuningReaderTest, ConvertsOnlyTheFirstSelectionIntoBothPayloadRanges) {
  Payload payload;
  ASSERT_EQ(Read(Write("good.qvrcs", TuningWith(SomeSettings()).SerializeAsString()).c_str(), payload), 0);
  EXPECT_EQ(log_, Lines{});
  EXPECT_EQ(payload, Expected(SomeSettings()));
  EXPECT_EQ(payload[qvr::kPostmixPayloadOffset + qvrcs::kMultichRoomSlot + qvrcs::kRoomCoefs], 11);

  // Later workspaces, routes and technologies are never read.
  Qvrcs message = TuningWith(SomeSettings());
  KorvaSettings other;
  other.mutable_premix()->set_stream_gain(99);
  auto* first = message.mutable_workspace(0);
  *first->add_routeconfiguration()->add_tech()->mutable_korva_v1_1() = other;
  *first->mutable_routeconfiguration(0)->add_tech()->mutable_korva_v1_1() = other;
  *message.add_workspace()->add_routeconfiguration()->add_tech()->mutable_korva_v1_1() = other;
  ASSERT_EQ(Read(Write("two.qvrcs", message.SerializeAsString()).c_str(), payload), 0);
  EXPECT_EQ(payload, Expected(SomeSettings()));

  // Only the second settings version: the converters see default korva_v1_1 settings.
  Qvrcs secondVersion;
  auto* tech = secondVersion.add_workspace()->add_routeconfiguration()->add_tech();
  tech->mutable_korva()->mutable_premix()->set_stream_gain(5);
  tech->mutable_korva()->mutable_postmix()->set_postmix_gain(7);
  ASSERT_EQ(Read(Write("korva-only.qvrcs", secondVersion.SerializeAsString()).c_str(), payload), 0);
  EXPECT_EQ(payload, Expected(KorvaSettings{}));
}

// Each failure returns -4, writes one log line and leaves the payload alone.
// (Files missing, empty or not parsing, through the configurator: the fault matrix.)
TEST_F(TuningReaderTest, FailuresLogOneLineAndCopyNothing) {
  KorvaSettings unknownRoom = SomeSettings();
  unknownRoom.mutable_postmix()->add_frontroom()->set_uuid("nowhere");
  Qvrcs noRoute, noTech;
  noRoute.add_workspace();
  noTech.add_workspace()->add_routeconfiguration();
  const std::string good = Write("good.qvrcs", TuningWith(SomeSettings()).SerializeAsString());

  struct Case {
    std::string path;
    bool nullPayload;
    std::string line;
  } const cases[] = {
      {Write("unknown-room.qvrcs", TuningWith(unknownRoom).SerializeAsString()), false,
       "Error: parsing Pre (res = 0) or Post (res = -999)"},
      {Write("no-route.qvrcs", noRoute.SerializeAsString()), false,
       "Error: " + Path("no-route.qvrcs") + " has no routeConfiguration in workspace 0"},
      {Write("no-tech.qvrcs", noTech.SerializeAsString()), false,
       "Error: " + Path("no-tech.qvrcs") + " has no tech in routeConfiguration 0"},
      {"", false, "Error:  filename or outData is NULL"},  // a null file name
      {good, true, "Error:  filename or outData is NULL"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    Payload payload;
    EXPECT_EQ(Read(c.path.empty() ? nullptr : c.path.c_str(), payload, c.nullPayload), -4);
    EXPECT_EQ(log_, Lines{c.line});
    EXPECT_EQ(payload, kUntouched);
  }
}

}  // namespace
