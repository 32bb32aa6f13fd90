// The whole postmix block: template, fill order, the walk rules of rooms and
// headphone EQ, the high-pass section, and what a failing step leaves behind.
#include "postmix_support.h"
#include "qvrcs/record_layout.h"
#include "qvrcs/templates.h"

namespace {

using namespace postmix_test;
using com::qvr::pb::korva_v1_1::KorvaSettings;
using com::qvr::pb::korva_v1_1::Postmix;
using com::qvr::pb::model::listeningModel;

constexpr size_t kEnd = qvrcs::kPostmixBlockSize;

// The template with the words that every conversion writes, whatever the
// settings: the Velmo crossover and high-pass orders and the two Gorm sizes
// (0 when their records are absent).
qvrcs::PostmixBlock TemplateWithEmptyCoefSections() {
  qvrcs::PostmixBlock expected = kPostmixTemplate;
  const qvrcs::BlockView view{expected.data(), expected.size(), 0};
  for (size_t word : {qvrcs::kVelmoXoverOrder, qvrcs::kVelmoHpfOrder, qvrcs::kGormSpeakerSize,
                      qvrcs::kGormAnalysisSize}) {
    qvrcs::StoreI32(view, word, 0);
  }
  return expected;
}

class PostmixBlockTest : public testing::Test {
 protected:
  PostmixBlockTest() { QVRCS_InitContext(context_, kRate); }

  Postmix& postmix() { return *settings_.mutable_postmix(); }
  listeningModel& model() { return *postmix().mutable_model(); }

  void AddRoom(listeningModel& into, const std::string& uuid, std::vector<int32_t> c16,
               int32_t rate = kRate48k) {
    auto* room = into.add_rooms();
    room->set_uuid(uuid);
    room->set_numpairs(static_cast<uint32_t>(c16.size()));
    AddTable16(room->mutable_coefftables(), rate, c16);
  }
  void AddHeadphoneEq(const std::string& uuid, std::vector<int32_t> c16, int32_t rate) {
    auto* eq = model().add_headphones();
    eq->set_uuid(uuid);
    eq->set_ihpirlength(static_cast<uint32_t>(c16.size()));
    AddTable16(eq->mutable_coefftables(), rate, c16);
  }
  void AddAeq(const std::string& uuid, int32_t rate0, int32_t rate1) {
    auto* aeq = model().add_aeqs();
    aeq->set_uuid(uuid);
    AddTable32(aeq->add_coefficient_table()->mutable_iircoefs(), rate0, {10, 11});
    AddTable32(aeq->add_coefficient_table()->mutable_iircoefs(), rate1, {20, 21});
  }

  int32_t Convert(Block& block, bool useTemplate = true, const ListeningModelList& models = {}) {
    return QVRCS_ConvertPostmix(context_, settings_, *block.bytes, useTemplate, models);
  }

  ConversionContext context_;
  KorvaSettings settings_;
};

// Control section as the control converter alone makes it from the template.
qvrcs::PostmixBlock WithControls(const ConversionContext& context, const KorvaSettings& settings,
                                 qvrcs::PostmixBlock block) {
  QVRCS_ConvertPostmixControls(context, settings, {block.data(), block.size(), 0});
  return block;
}

TEST_F(PostmixBlockTest, EmptySettingsGiveTheTemplate) {
  Block block;  // junk before the conversion
  ASSERT_EQ(Convert(block), QVRCS_OK);
  const qvrcs::PostmixBlock expected =
      WithControls(context_, settings_, TemplateWithEmptyCoefSections());
  EXPECT_TRUE(SameBytes(*block.bytes, expected, 0, kEnd));
  // And the template's fixed words and Gorm coefficients are really there.
  EXPECT_TRUE(WordsAre(block, qvrcs::kPostmixFixedWords, {3000, 9540, 5000, 5000}));
  EXPECT_EQ(block.I32(qvrcs::kAeqRecord), 24);
  EXPECT_EQ(block.I32(qvrcs::kGormCoefs), 2814040);
}

TEST_F(PostmixBlockTest, WithoutTemplateTheCallersBytesAreTheBase) {
  Block block(0x5A);
  ASSERT_EQ(Convert(block, false), QVRCS_OK);
  EXPECT_TRUE(AllBytes(block, qvrcs::kPostmixFixedWords, qvrcs::kVelmoHpfOrder, 0x5A));
  EXPECT_TRUE(WordsAre(block, qvrcs::kVelmoHpfOrder, {0}));
  EXPECT_TRUE(AllBytes(block, qvrcs::kVelmoHpfCoefs, qvrcs::kVelmoXoverOrder, 0x5A));
  EXPECT_TRUE(WordsAre(block, qvrcs::kVelmoXoverOrder, {0}));
  EXPECT_TRUE(AllBytes(block, qvrcs::kVelmoXoverLpfCoefs, qvrcs::kGormSpeakerSize, 0x5A));
  EXPECT_TRUE(WordsAre(block, qvrcs::kGormSpeakerSize, {0, 0}));
  EXPECT_TRUE(AllBytes(block, qvrcs::kGormCoefs, kEnd, 0x5A));
}

TEST_F(PostmixBlockTest, EverySectionFromOneSettingsRecord) {
  AddRoom(model(), "multi", Ramp(100, 1));
  AddRoom(model(), "front", Ramp(50, 2000));
  AddRoom(model(), "wide", Ramp(60, 3000));
  AddHeadphoneEq("hp", Ramp(10, 4000), kRate48k);
  AddAeq("aeq", kRate48k, kRate48k);
  postmix().add_multichroom()->set_uuid("MULTI");
  postmix().add_frontroom()->set_uuid("front");
  postmix().add_wideroom()->set_uuid("wide");
  postmix().add_hpeqcoef()->set_uuid("hp");
  postmix().add_aeqcoef()->set_uuid("aeq");
  postmix().mutable_hpf_coef()->set_order(2);
  AddTable32(postmix().mutable_hpf_coef()->mutable_coeffs(), kRate48k, Ramp(20, -7));
  postmix().mutable_velmo_xover_coef()->set_order(3);
  AddTable16(postmix().mutable_velmo_xover_coef()->mutable_lpf_coeffs(), kRate48k, {31, 32});
  AddTable16(postmix().mutable_velmo_xover_coef()->mutable_hpf_coeffs(), kRate48k, {33});
  postmix().mutable_velmo_hpf_coef()->set_order(4);
  AddTable16(postmix().mutable_velmo_hpf_coef()->mutable_hpf_coeffs(), kRate48k, {41, 42});
  postmix().mutable_gorm_coef()->set_speaker_size(5);
  postmix().mutable_gorm_coef()->set_analysis_size(6);
  AddTable32(postmix().mutable_gorm_coef()->mutable_coeffs(), kRate48k, {51});

  Block block;
  ASSERT_EQ(Convert(block), QVRCS_OK);
  EXPECT_TRUE(WordsAre(block, qvrcs::kPostmixFixedWords, {3000, 9540, 5000, 5000}));
  EXPECT_EQ(block.I32(qvrcs::kMultichRoomSlot + qvrcs::kRoomNumPairs), 100);
  EXPECT_TRUE(HalfWordsAre(block, qvrcs::kMultichRoomSlot + qvrcs::kRoomCoefs, Ramp(100, 1)));
  EXPECT_TRUE(HalfWordsAre(block, qvrcs::kFrontRoomSlot + qvrcs::kRoomCoefs, Ramp(50, 2000)));
  EXPECT_TRUE(HalfWordsAre(block, qvrcs::kWideRoomSlot + qvrcs::kRoomCoefs, Ramp(60, 3000)));
  EXPECT_TRUE(WordsAre(block, qvrcs::kHeadphoneEqSlot + qvrcs::kHpeqSampleRate, {48000, 10}));
  EXPECT_TRUE(HalfWordsAre(block, qvrcs::kHeadphoneEqSlot + qvrcs::kHpeqCoefs, Ramp(10, 4000)));
  EXPECT_TRUE(WordsAre(block, qvrcs::kHpfOrder, {2}));
  EXPECT_TRUE(WordsAre(block, qvrcs::kHpfCoefs, Ramp(20, -7)));
  EXPECT_TRUE(WordsAre(block, qvrcs::kAeqRecord, {24, -1, 10, 11, 0}));
  EXPECT_TRUE(
      WordsAre(block, qvrcs::kAeqRecord + 4 * qvrcs::kAeqChannelWords, {24, -1, 20, 21, 0}));
  EXPECT_TRUE(WordsAre(block, qvrcs::kVelmoHpfOrder, {4}));
  EXPECT_TRUE(HalfWordsAre(block, qvrcs::kVelmoHpfCoefs, {41, 42, 0}));
  EXPECT_TRUE(WordsAre(block, qvrcs::kVelmoXoverOrder, {3}));
  EXPECT_TRUE(HalfWordsAre(block, qvrcs::kVelmoXoverLpfCoefs, {31, 32, 0}));
  EXPECT_TRUE(HalfWordsAre(block, qvrcs::kVelmoXoverHpfCoefs, {33, 0}));
  EXPECT_TRUE(WordsAre(block, qvrcs::kGormSpeakerSize, {5, 6, 51}));
  EXPECT_TRUE(SameBytes(*block.bytes, kPostmixTemplate, qvrcs::kGormCoefs + 4, kEnd));
}

TEST_F(PostmixBlockTest, RoomWalkKeepsTheLastSuccessAndStopsAtTheFirstFailure) {
  AddRoom(model(), "a", {1, 1});
  AddRoom(model(), "b", {2, 2});
  AddRoom(model(), "big", Ramp(6151, 0));
  postmix().add_multichroom()->set_uuid("a");
  postmix().add_multichroom();  // no uuid: nothing to load, the walk goes on
  postmix().add_multichroom()->set_uuid("b");
  postmix().add_frontroom()->set_uuid("a");
  postmix().add_wideroom()->set_uuid("a");

  Block block;
  ASSERT_EQ(Convert(block), QVRCS_OK);
  EXPECT_TRUE(HalfWordsAre(block, qvrcs::kMultichRoomSlot + qvrcs::kRoomCoefs, {2, 2}));

  // An unknown room after a loaded one: -999, the loaded room stays, and
  // everything after the multichannel room keeps the template.
  postmix().add_multichroom()->set_uuid("unknown");
  Block unknown;
  EXPECT_EQ(Convert(unknown), QVRCS_ERR_UNKNOWN_ROOM);
  EXPECT_TRUE(HalfWordsAre(unknown, qvrcs::kMultichRoomSlot + qvrcs::kRoomCoefs, {2, 2}));
  EXPECT_TRUE(SameBytes(*unknown.bytes, kPostmixTemplate, qvrcs::kFrontRoomSlot, kEnd));

  // A front room too large for its slot: -997, the wide room is not loaded.
  postmix().mutable_multichroom()->RemoveLast();
  postmix().mutable_frontroom(0)->set_uuid("big");
  Block tooLarge;
  EXPECT_EQ(Convert(tooLarge), QVRCS_ERR_RECORD_TOO_LARGE);
  EXPECT_TRUE(HalfWordsAre(tooLarge, qvrcs::kMultichRoomSlot + qvrcs::kRoomCoefs, {2, 2}));
  EXPECT_TRUE(SameBytes(*tooLarge.bytes, kPostmixTemplate, qvrcs::kFrontRoomSlot, kEnd));
}

TEST_F(PostmixBlockTest, HeadphoneEqWalkCountsOnlyTheLastEntry) {
  AddHeadphoneEq("no-table", {9, 9}, kRate44k);
  AddHeadphoneEq("good", {1, 2, 3}, kRate48k);

  postmix().add_hpeqcoef()->set_uuid("no-table");
  postmix().add_hpeqcoef()->set_uuid("good");
  Block failThenGood;
  EXPECT_EQ(Convert(failThenGood), QVRCS_OK);
  EXPECT_TRUE(HalfWordsAre(failThenGood, qvrcs::kHeadphoneEqSlot + qvrcs::kHpeqCoefs, {1, 2, 3}));

  postmix().mutable_hpeqcoef()->SwapElements(0, 1);
  Block goodThenFail;
  EXPECT_EQ(Convert(goodThenFail), QVRCS_ERR_NO_COEF_TABLE);
  EXPECT_TRUE(HalfWordsAre(goodThenFail, qvrcs::kHeadphoneEqSlot + qvrcs::kHpeqCoefs, {1, 2, 3}));
  EXPECT_TRUE(SameBytes(*goodThenFail.bytes, kPostmixTemplate, qvrcs::kHpfOrder, kEnd));

  // An unknown headphone EQ last is nothing to load, not a failure.
  postmix().add_hpeqcoef()->set_uuid("unknown");
  Block unknownLast;
  EXPECT_EQ(Convert(unknownLast), QVRCS_OK);
}

TEST_F(PostmixBlockTest, HighPassFilterSection) {
  auto* hpf = postmix().mutable_hpf_coef();
  AddTable32(hpf->mutable_coeffs(), std::nullopt, Ramp(4, 900));  // no rate: no match
  AddTable32(hpf->mutable_coeffs(), kRate48k, Ramp(21, 100));     // first match, too long
  AddTable32(hpf->mutable_coeffs(), kRate48k, Ramp(4, 200));      // never reached

  // Not an error; the order is stored only when set.
  Block tooLong(0x5A);
  EXPECT_EQ(Convert(tooLong, false), QVRCS_OK);
  EXPECT_TRUE(AllBytes(tooLong, qvrcs::kHpfOrder, qvrcs::kAeqRecord, 0x5A));
  hpf->set_order(-3);
  Block withOrder(0x5A);
  EXPECT_EQ(Convert(withOrder, false), QVRCS_OK);
  EXPECT_EQ(withOrder.I32(qvrcs::kHpfOrder), -3);
  EXPECT_TRUE(AllBytes(withOrder, qvrcs::kHpfCoefs, qvrcs::kAeqRecord, 0x5A));

  // A fitting first match is copied; fewer than 20 values leave the rest.
  hpf->mutable_coeffs()->SwapElements(1, 2);
  Block fits(0x5A);
  EXPECT_EQ(Convert(fits, false), QVRCS_OK);
  EXPECT_TRUE(WordsAre(fits, qvrcs::kHpfCoefs, Ramp(4, 200)));
  EXPECT_TRUE(AllBytes(fits, qvrcs::kHpfCoefs + 16, qvrcs::kAeqRecord, 0x5A));
}

TEST_F(PostmixBlockTest, AeqFailureLeavesItsPartialRecordAndTheTemplateAfter) {
  AddAeq("aeq", kRate44k, kRate48k);
  postmix().add_aeqcoef()->set_uuid("aeq");
  postmix().mutable_velmo_xover_coef()->set_order(3);
  postmix().mutable_gorm_coef()->set_speaker_size(5);

  Block block;
  EXPECT_EQ(Convert(block), QVRCS_ERR_NO_COEF_TABLE);
  EXPECT_TRUE(WordsAre(block, qvrcs::kAeqRecord, {24, -1, 0, 0}));
  EXPECT_TRUE(
      WordsAre(block, qvrcs::kAeqRecord + 4 * qvrcs::kAeqChannelWords, {24, -1, 20, 21, 0}));
  EXPECT_TRUE(SameBytes(*block.bytes, kPostmixTemplate, qvrcs::kVelmoHpfOrder, kEnd));
}

TEST_F(PostmixBlockTest, VelmoHighPassFailureAfterTheCrossoverBeforeGorm) {
  postmix().mutable_velmo_xover_coef()->set_order(3);
  AddTable16(postmix().mutable_velmo_xover_coef()->mutable_lpf_coeffs(), kRate48k, {31});
  postmix().mutable_velmo_hpf_coef()->set_order(2);
  AddTable16(postmix().mutable_velmo_hpf_coef()->mutable_hpf_coeffs(), kRate44k, {1});
  postmix().mutable_gorm_coef()->set_speaker_size(5);

  Block block;
  EXPECT_EQ(Convert(block), QVRCS_ERR_NO_COEF_TABLE);
  EXPECT_EQ(block.I32(qvrcs::kVelmoHpfOrder), 2);
  EXPECT_EQ(block.I32(qvrcs::kVelmoXoverOrder), 3);
  EXPECT_EQ(block.U16(qvrcs::kVelmoXoverLpfCoefs), 31);
  EXPECT_TRUE(SameBytes(*block.bytes, kPostmixTemplate, qvrcs::kGormSpeakerSize, kEnd));
}

TEST_F(PostmixBlockTest, ControlSectionFailureEndsBeforeAnyOtherSection) {
  postmix().mutable_enhance2()->add_ref_htest(-1);
  AddRoom(model(), "a", {1});
  postmix().add_multichroom()->set_uuid("a");
  postmix().mutable_gorm_coef()->set_speaker_size(5);

  Block block;
  EXPECT_EQ(Convert(block), QVRCS_ERR_NEGATIVE_REF_HTEST);
  EXPECT_TRUE(SameBytes(*block.bytes, kPostmixTemplate, qvrcs::kPostmixControlSize, kEnd));
}

TEST_F(PostmixBlockTest, CallersModelsAreSearchedBeforeThePostmixModel) {
  AddRoom(model(), "shared", {1});
  AddRoom(model(), "own", {2});
  postmix().add_multichroom()->set_uuid("shared");
  postmix().add_frontroom()->set_uuid("own");

  Block ownOnly;
  ASSERT_EQ(Convert(ownOnly), QVRCS_OK);
  EXPECT_EQ(ownOnly.U16(qvrcs::kMultichRoomSlot + qvrcs::kRoomCoefs), 1);
  EXPECT_EQ(ownOnly.U16(qvrcs::kFrontRoomSlot + qvrcs::kRoomCoefs), 2);

  listeningModel callers;
  AddRoom(callers, "SHARED", {3});
  const ListeningModelList models = {callers};
  Block both;
  ASSERT_EQ(Convert(both, true, models), QVRCS_OK);
  EXPECT_EQ(both.U16(qvrcs::kMultichRoomSlot + qvrcs::kRoomCoefs), 3);
  EXPECT_EQ(both.U16(qvrcs::kFrontRoomSlot + qvrcs::kRoomCoefs), 2);
  EXPECT_EQ(models.size(), 1u);

  // Without a model of its own, the postmix sees the caller's list only.
  postmix().clear_model();
  Block callersOnly;
  EXPECT_EQ(Convert(callersOnly, true, models), QVRCS_ERR_UNKNOWN_ROOM);
}

}  // namespace
