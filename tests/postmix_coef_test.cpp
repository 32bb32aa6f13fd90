// Coefficient table selection and the Velmo crossover, Velmo high-pass and
// Gorm sections at the end of the postmix block.
#include "block_support.h"

namespace qvrcs::block_test {
namespace {

using com::qvr::pb::korva_v1_1::Postmix;
using Block = PostmixBytes;

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

  // The Velmo high-pass compares values only: a table without a rate is
  // taken at rate 0.
  Postmix postmix;
  postmix.mutable_velmo_hpf_coef()->set_order(1);
  AddTable16(postmix.mutable_velmo_hpf_coef()->mutable_hpf_coeffs(), std::nullopt, {7, 8});
  Block atZero, at48k;
  EXPECT_EQ(QVRCS_ConvertVelmoHpfCoef(Context(0), postmix, atZero.View()), QVRCS_OK);
  EXPECT_TRUE(HalfWordsAre(atZero, kVelmoHpfCoefs, {7, 8}));
  EXPECT_EQ(QVRCS_ConvertVelmoHpfCoef(Context(), postmix, at48k.View()), QVRCS_ERR_NO_COEF_TABLE);
}

TEST(VelmoXover, OrderAlwaysStoredAndLastMatchingTablePrevails) {
  Block absent;
  EXPECT_EQ(QVRCS_ConvertVelmoXoverCoef(Context(), Postmix{}, absent.View()), QVRCS_OK);
  EXPECT_EQ(absent.I32(kVelmoXoverOrder), 0);
  EXPECT_EQ(ChangedBytes(absent, *Block().bytes), Bytes(kVelmoXoverOrder, kVelmoXoverOrder + 4));

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
  EXPECT_EQ(block.I32(kVelmoXoverOrder), 4);
  EXPECT_TRUE(HalfWordsAre(block, kVelmoXoverLpfCoefs, Ramp(14, 200)));
  EXPECT_TRUE(HalfWordsAre(block, kVelmoXoverHpfCoefs, {4464, 0xFFFF, 3}));  // low 16 bits
  EXPECT_TRUE(AllWithin(ChangedBytes(block, *Block().bytes), kVelmoXoverOrder, kVelmoXoverHpfCoefs + 6));
}

TEST(VelmoXover, LongTablesRunOnIntoTheFollowingFields) {
  Postmix postmix;
  auto* xover = postmix.mutable_velmo_xover_coef();
  AddTable16(xover->mutable_lpf_coeffs(), kRate48k, Ramp(16, 10));
  Block lowOnly;
  QVRCS_ConvertVelmoXoverCoef(Context(), postmix, lowOnly.View());
  // Values 14 and 15 of the low-pass table land in the high-pass area.
  EXPECT_TRUE(HalfWordsAre(lowOnly, kVelmoXoverLpfCoefs, Ramp(16, 10)));
  EXPECT_TRUE(AllBytes(lowOnly, kVelmoXoverHpfCoefs + 4, kPostmixBlockSize, kFill));

  // The high-pass table is written afterwards and covers the overrun; its
  // own overrun reaches the Gorm speaker size word.
  AddTable16(xover->mutable_hpf_coeffs(), kRate48k, Ramp(16, 500));
  Block both;
  QVRCS_ConvertVelmoXoverCoef(Context(), postmix, both.View());
  EXPECT_TRUE(HalfWordsAre(both, kVelmoXoverLpfCoefs, Ramp(14, 10)));
  EXPECT_TRUE(HalfWordsAre(both, kVelmoXoverHpfCoefs, Ramp(16, 500)));
  EXPECT_EQ(both.I32(kGormSpeakerSize), 514 | 515 << 16);
  EXPECT_TRUE(AllBytes(both, kGormAnalysisSize, kPostmixBlockSize, kFill));
}

TEST(VelmoHpf, FirstMatchingTableOfAtMostTwentyValues) {
  Postmix postmix;
  auto* hpf = postmix.mutable_velmo_hpf_coef();
  hpf->set_order(2);
  AddTable16(hpf->mutable_hpf_coeffs(), kRate44k, Ramp(6, 900));
  AddTable16(hpf->mutable_hpf_coeffs(), kRate48k, Ramp(21, 100));  // too long: skipped

  // No usable table: the order is stored, then the failure.
  Block none;
  EXPECT_EQ(QVRCS_ConvertVelmoHpfCoef(Context(), postmix, none.View()), QVRCS_ERR_NO_COEF_TABLE);
  EXPECT_EQ(ChangedBytes(none, *Block().bytes), Bytes(kVelmoHpfOrder, kVelmoHpfOrder + 4));
  EXPECT_EQ(none.I32(kVelmoHpfOrder), 2);

  AddTable16(hpf->mutable_hpf_coeffs(), kRate48k, Ramp(6, 200));
  AddTable16(hpf->mutable_hpf_coeffs(), kRate48k, Ramp(6, 300));
  Block block;
  EXPECT_EQ(QVRCS_ConvertVelmoHpfCoef(Context(), postmix, block.View()), QVRCS_OK);
  EXPECT_EQ(block.I32(kVelmoHpfOrder), 2);
  EXPECT_TRUE(HalfWordsAre(block, kVelmoHpfCoefs, Ramp(6, 200)));
  EXPECT_TRUE(AllWithin(ChangedBytes(block, *Block().bytes), kVelmoHpfOrder, kVelmoHpfCoefs + 12));
}

TEST(VelmoHpf, OrderZeroNeedsNoTableAndAnEmptyMatchWritesNoValues) {
  Postmix withTable;
  AddTable16(withTable.mutable_velmo_hpf_coef()->mutable_hpf_coeffs(), kRate48k, Ramp(6, 1));
  Postmix emptyMatch;
  emptyMatch.mutable_velmo_hpf_coef()->set_order(1);
  AddTable16(emptyMatch.mutable_velmo_hpf_coef()->mutable_hpf_coeffs(), kRate48k, {});
  AddTable16(emptyMatch.mutable_velmo_hpf_coef()->mutable_hpf_coeffs(), kRate48k, Ramp(3, 1));
  for (const auto& [postmix, order] : {std::pair{Postmix{}, 0}, std::pair{withTable, 0}, std::pair{emptyMatch, 1}}) {
    Block block;
    EXPECT_EQ(QVRCS_ConvertVelmoHpfCoef(Context(), postmix, block.View()), QVRCS_OK);
    EXPECT_EQ(block.I32(kVelmoHpfOrder), order);
    EXPECT_TRUE(AllBytes(block, kVelmoHpfCoefs, kPostmixBlockSize, kFill));
  }
}

TEST(GormCoef, SizesAlwaysStoredAndLastMatchingTablePrevails) {
  Block absent;
  EXPECT_EQ(QVRCS_ConvertGormCoef(Context(), Postmix{}, absent.View()), QVRCS_OK);
  EXPECT_TRUE(WordsAre(absent, kGormSpeakerSize, {0, 0}));
  EXPECT_TRUE(AllWithin(ChangedBytes(absent, *Block().bytes), kGormSpeakerSize, kGormCoefs));

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
  std::vector<int32_t> expected = Ramp(24, 1000, -3);
  expected[0] = -5;
  expected[1] = 0x7FFFFFFF;
  EXPECT_TRUE(WordsAre(block, kGormSpeakerSize, {7, -9}));
  EXPECT_TRUE(WordsAre(block, kGormCoefs, expected));
  EXPECT_TRUE(AllBytes(block, 0, kGormSpeakerSize, kFill));
}

TEST(GormCoef, LongTableStopsAtTheBlockEnd) {
  Postmix postmix;
  AddTable32(postmix.mutable_gorm_coef()->mutable_coeffs(), kRate48k, Ramp(30, 1));
  Block block;  // exactly 61468 bytes on the heap: a store past the end would be caught
  EXPECT_EQ(QVRCS_ConvertGormCoef(Context(), postmix, block.View()), QVRCS_OK);
  EXPECT_TRUE(WordsAre(block, kGormCoefs, Ramp(24, 1)));
}

}  // namespace
}  // namespace qvrcs::block_test
