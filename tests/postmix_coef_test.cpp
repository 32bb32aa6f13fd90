// Coefficient table selection and the Velmo crossover, Velmo high-pass and
// Gorm sections at the end of the postmix block.
#include "postmix_support.h"

namespace {

using namespace postmix_test;
using com::qvr::pb::korva_v1_1::Postmix;

ConversionContext Context(uint32_t rate = kRate) {
  ConversionContext c;
  QVRCS_InitContext(c, rate);
  return c;
}

TEST(CoefTableSelection, FirstTableWithPresentMatchingRateWins) {
  TableList tables;
  AddTable16(&tables, std::nullopt, {1});
  AddTable16(&tables, kRate44k, {2});
  const CoefTable* first48k = AddTable16(&tables, kRate48k, {});  // empty lists still match
  AddTable16(&tables, kRate48k, {4});

  EXPECT_EQ(QVRCS_FindCoefTable(tables, kRate), first48k);
  EXPECT_EQ(QVRCS_FindCoefTable(tables, 96000), nullptr);
  // An absent sampleRate is not a rate of 0 here; an explicit 0 is.
  EXPECT_EQ(QVRCS_FindCoefTable(tables, 0), nullptr);
  const CoefTable* zero = AddTable16(&tables, 0, {5});
  EXPECT_EQ(QVRCS_FindCoefTable(tables, 0), zero);
  // A negative table rate is never taken for a large unsigned rate.
  AddTable16(&tables, -1, {6});
  EXPECT_EQ(QVRCS_FindCoefTable(tables, 0xFFFFFFFFu), nullptr);
  EXPECT_EQ(QVRCS_FindCoefTable(TableList{}, kRate), nullptr);
}

TEST(CoefTableSelection, ValueOnlyRuleTakesATableWithoutRateAtRateZero) {
  Postmix postmix;
  auto* hpf = postmix.mutable_velmo_hpf_coef();
  hpf->set_order(1);
  AddTable16(hpf->mutable_hpf_coeffs(), std::nullopt, {7, 8});

  Block atZero, at48k;
  EXPECT_EQ(QVRCS_ConvertVelmoHpfCoef(Context(0), postmix, atZero.View()), QVRCS_OK);
  EXPECT_TRUE(HalfWordsAre(atZero, qvrcs::kVelmoHpfCoefs, {7, 8}));
  EXPECT_EQ(QVRCS_ConvertVelmoHpfCoef(Context(), postmix, at48k.View()), QVRCS_ERR_NO_COEF_TABLE);
}

TEST(VelmoXover, OrderAlwaysStoredAndLastMatchingTablePrevails) {
  Postmix postmix;
  auto* xover = postmix.mutable_velmo_xover_coef();
  xover->set_order(4);
  AddTable16(xover->mutable_lpf_coeffs(), kRate48k, Ramp(14, 100));
  AddTable16(xover->mutable_lpf_coeffs(), kRate44k, Ramp(14, 900));
  AddTable16(xover->mutable_lpf_coeffs(), kRate48k, Ramp(14, 200));
  AddTable32(xover->mutable_lpf_coeffs(), kRate48k, {1, 2});  // no coeff_16: passed over
  AddTable16(xover->mutable_hpf_coeffs(), kRate48k, {70000, -1, 3});

  Block block;
  EXPECT_EQ(QVRCS_ConvertVelmoXoverCoef(Context(), postmix, block.View()), QVRCS_OK);
  EXPECT_EQ(block.I32(qvrcs::kVelmoXoverOrder), 4);
  EXPECT_TRUE(HalfWordsAre(block, qvrcs::kVelmoXoverLpfCoefs, Ramp(14, 200)));
  // 70000 keeps its low 16 bits (4464); -1 becomes 0xFFFF.
  EXPECT_TRUE(HalfWordsAre(block, qvrcs::kVelmoXoverHpfCoefs, {4464, 0xFFFF, 3}));
  EXPECT_TRUE(AllBytes(block, qvrcs::kVelmoXoverHpfCoefs + 6, qvrcs::kGormSpeakerSize, kFill));
  EXPECT_TRUE(AllBytes(block, 0, qvrcs::kVelmoXoverOrder, kFill));
  EXPECT_TRUE(AllBytes(block, qvrcs::kGormSpeakerSize, qvrcs::kPostmixBlockSize, kFill));
}

TEST(VelmoXover, AbsentRecordStoresOrderZeroOnly) {
  Block block;
  EXPECT_EQ(QVRCS_ConvertVelmoXoverCoef(Context(), Postmix{}, block.View()), QVRCS_OK);
  EXPECT_EQ(block.I32(qvrcs::kVelmoXoverOrder), 0);
  EXPECT_TRUE(AllBytes(block, 0, qvrcs::kVelmoXoverOrder, kFill));
  EXPECT_TRUE(AllBytes(block, qvrcs::kVelmoXoverLpfCoefs, qvrcs::kPostmixBlockSize, kFill));
}

TEST(VelmoXover, LongTablesRunOnIntoTheFollowingFields) {
  Postmix postmix;
  auto* xover = postmix.mutable_velmo_xover_coef();
  AddTable16(xover->mutable_lpf_coeffs(), kRate48k, Ramp(16, 10));
  Block lowOnly;
  QVRCS_ConvertVelmoXoverCoef(Context(), postmix, lowOnly.View());
  // Values 14 and 15 of the low-pass table land in the high-pass area.
  EXPECT_TRUE(HalfWordsAre(lowOnly, qvrcs::kVelmoXoverLpfCoefs, Ramp(16, 10)));
  EXPECT_TRUE(AllBytes(lowOnly, qvrcs::kVelmoXoverHpfCoefs + 4, qvrcs::kPostmixBlockSize, kFill));

  // The high-pass table is written afterwards and covers the overrun; its
  // own overrun reaches the Gorm speaker size word.
  AddTable16(xover->mutable_hpf_coeffs(), kRate48k, Ramp(16, 500));
  Block both;
  QVRCS_ConvertVelmoXoverCoef(Context(), postmix, both.View());
  EXPECT_TRUE(HalfWordsAre(both, qvrcs::kVelmoXoverLpfCoefs, Ramp(14, 10)));
  EXPECT_TRUE(HalfWordsAre(both, qvrcs::kVelmoXoverHpfCoefs, Ramp(16, 500)));
  EXPECT_EQ(both.I32(qvrcs::kGormSpeakerSize), 514 | 515 << 16);
  EXPECT_TRUE(AllBytes(both, qvrcs::kGormAnalysisSize, qvrcs::kPostmixBlockSize, kFill));
}

TEST(VelmoHpf, FirstMatchingTableOfAtMostTwentyValues) {
  Postmix postmix;
  auto* hpf = postmix.mutable_velmo_hpf_coef();
  hpf->set_order(2);
  AddTable16(hpf->mutable_hpf_coeffs(), kRate44k, Ramp(6, 900));
  AddTable16(hpf->mutable_hpf_coeffs(), kRate48k, Ramp(21, 100));  // too long: skipped
  AddTable16(hpf->mutable_hpf_coeffs(), kRate48k, Ramp(6, 200));
  AddTable16(hpf->mutable_hpf_coeffs(), kRate48k, Ramp(6, 300));

  Block block;
  EXPECT_EQ(QVRCS_ConvertVelmoHpfCoef(Context(), postmix, block.View()), QVRCS_OK);
  EXPECT_EQ(block.I32(qvrcs::kVelmoHpfOrder), 2);
  EXPECT_TRUE(HalfWordsAre(block, qvrcs::kVelmoHpfCoefs, Ramp(6, 200)));
  EXPECT_TRUE(AllBytes(block, qvrcs::kVelmoHpfCoefs + 12, qvrcs::kPostmixBlockSize, kFill));
  EXPECT_TRUE(AllBytes(block, 0, qvrcs::kVelmoHpfOrder, kFill));
}

TEST(VelmoHpf, NoUsableTableFailsAfterStoringTheOrder) {
  Postmix postmix;
  auto* hpf = postmix.mutable_velmo_hpf_coef();
  hpf->set_order(2);
  AddTable16(hpf->mutable_hpf_coeffs(), kRate44k, Ramp(6, 900));
  AddTable16(hpf->mutable_hpf_coeffs(), kRate48k, Ramp(21, 100));

  Block block;
  EXPECT_EQ(QVRCS_ConvertVelmoHpfCoef(Context(), postmix, block.View()), QVRCS_ERR_NO_COEF_TABLE);
  EXPECT_EQ(block.I32(qvrcs::kVelmoHpfOrder), 2);
  EXPECT_TRUE(AllBytes(block, qvrcs::kVelmoHpfCoefs, qvrcs::kPostmixBlockSize, kFill));
}

TEST(VelmoHpf, OrderZeroOrAbsentNeedsNoTable) {
  Postmix postmix;
  AddTable16(postmix.mutable_velmo_hpf_coef()->mutable_hpf_coeffs(), kRate48k, Ramp(6, 1));
  for (const Postmix& p : {Postmix{}, postmix}) {
    Block block;
    EXPECT_EQ(QVRCS_ConvertVelmoHpfCoef(Context(), p, block.View()), QVRCS_OK);
    EXPECT_EQ(block.I32(qvrcs::kVelmoHpfOrder), 0);
    EXPECT_TRUE(AllBytes(block, qvrcs::kVelmoHpfCoefs, qvrcs::kPostmixBlockSize, kFill));
  }
}

TEST(VelmoHpf, EmptyMatchingTableWritesNoValues) {
  Postmix postmix;
  auto* hpf = postmix.mutable_velmo_hpf_coef();
  hpf->set_order(1);
  AddTable16(hpf->mutable_hpf_coeffs(), kRate48k, {});
  AddTable16(hpf->mutable_hpf_coeffs(), kRate48k, Ramp(3, 1));
  Block block;
  EXPECT_EQ(QVRCS_ConvertVelmoHpfCoef(Context(), postmix, block.View()), QVRCS_OK);
  EXPECT_TRUE(AllBytes(block, qvrcs::kVelmoHpfCoefs, qvrcs::kPostmixBlockSize, kFill));
}

TEST(GormCoef, SizesAlwaysStoredAndLastMatchingTablePrevails) {
  Postmix postmix;
  auto* gorm = postmix.mutable_gorm_coef();
  gorm->set_speaker_size(7);
  gorm->set_analysis_size(-9);
  AddTable32(gorm->mutable_coeffs(), kRate48k, Ramp(24, 1000, -3));
  AddTable16(gorm->mutable_coeffs(), kRate48k, {1, 2});  // no coeff_32: passed over
  AddTable32(gorm->mutable_coeffs(), kRate48k, {-5, 0x7FFFFFFF});
  AddTable32(gorm->mutable_coeffs(), kRate44k, {4, 4});

  Block block;
  EXPECT_EQ(QVRCS_ConvertGormCoef(Context(), postmix, block.View()), QVRCS_OK);
  EXPECT_EQ(block.I32(qvrcs::kGormSpeakerSize), 7);
  EXPECT_EQ(block.I32(qvrcs::kGormAnalysisSize), -9);
  std::vector<int32_t> expected = Ramp(24, 1000, -3);
  expected[0] = -5;
  expected[1] = 0x7FFFFFFF;
  EXPECT_TRUE(WordsAre(block, qvrcs::kGormCoefs, expected));
  EXPECT_TRUE(AllBytes(block, 0, qvrcs::kGormSpeakerSize, kFill));
}

TEST(GormCoef, AbsentRecordZeroesTheSizesOnly) {
  Block block;
  EXPECT_EQ(QVRCS_ConvertGormCoef(Context(), Postmix{}, block.View()), QVRCS_OK);
  EXPECT_EQ(block.I32(qvrcs::kGormSpeakerSize), 0);
  EXPECT_EQ(block.I32(qvrcs::kGormAnalysisSize), 0);
  EXPECT_TRUE(AllBytes(block, qvrcs::kGormCoefs, qvrcs::kPostmixBlockSize, kFill));
  EXPECT_TRUE(AllBytes(block, 0, qvrcs::kGormSpeakerSize, kFill));
}

TEST(GormCoef, LongTableStopsAtTheBlockEnd) {
  Postmix postmix;
  AddTable32(postmix.mutable_gorm_coef()->mutable_coeffs(), kRate48k, Ramp(30, 1));
  Block block;  // exactly 61468 bytes on the heap: a store past the end would be caught
  EXPECT_EQ(QVRCS_ConvertGormCoef(Context(), postmix, block.View()), QVRCS_OK);
  EXPECT_TRUE(WordsAre(block, qvrcs::kGormCoefs, Ramp(24, 1)));
  EXPECT_EQ(qvrcs::kGormCoefs + 4 * qvrcs::kGormMaxCoefs, block.bytes->size());
}

}  // namespace
