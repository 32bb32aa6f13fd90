// The postmix control section, bytes 0..411 of the postmix block.
#include "block_support.h"

namespace qvrcs::block_test {
namespace {

class PostmixControlsTest : public ::testing::Test {
 protected:
  PostmixControlsTest() { QVRCS_InitContext(context_, kRate); }

  // Converts onto a copy of the template and checks the status.
  PostmixBytes Convert(int32_t expectedStatus = QVRCS_OK) {
    PostmixBytes block(kPostmixTemplate);
    EXPECT_EQ(QVRCS_ConvertPostmixControls(context_, settings_, block.View()), expectedStatus);
    return block;
  }

  // The template with the reserved half-word at 278 cleared, as every
  // conversion leaves it.
  static const PostmixBlock& Baseline() {
    static const auto* baseline = [] {
      auto* block = new PostmixBlock(kPostmixTemplate);
      (*block)[278] = (*block)[279] = 0;
      return block;
    }();
    return *baseline;
  }

  com::qvr::pb::korva_v1_1::Postmix* postmix() { return settings_.mutable_postmix(); }

  ConversionContext context_;
  KorvaSettings settings_;
};

TEST_F(PostmixControlsTest, OnlyTheGeq10bReservedHalfWordIsAlwaysCleared) {
  EXPECT_EQ(ChangedBytes(Convert(), kPostmixTemplate), Bytes(278, 280));
  postmix();  // a Postmix record that holds nothing
  EXPECT_EQ(ChangedBytes(Convert(), kPostmixTemplate), Bytes(278, 280));

  // Over a caller's block: the present field and the cleared half-word.
  postmix()->set_limiter(9);
  PostmixBytes block;
  EXPECT_EQ(QVRCS_ConvertPostmixControls(context_, settings_, block.View()), QVRCS_OK);
  EXPECT_EQ(ChangedBytes(block, *PostmixBytes().bytes), Bytes({{12, 16}, {278, 280}}));
  EXPECT_EQ(block.I32(12), 9);
  EXPECT_EQ(block.I16(278), 0);
}

TEST_F(PostmixControlsTest, PerChannelArraysFollowTheDspChannelOrder) {
  for (int32_t v = 10; v <= 15; ++v) postmix()->add_zell_input_gain(v);
  const PostmixBytes gains = Convert();
  EXPECT_TRUE(WordsAre(gains, 24, {13, 11, 12, 14, 10, 15}));
  EXPECT_TRUE(AllWithin(ChangedBytes(gains, Baseline()), 24, 48));

  // Two elements: slots 4 and 1 only.
  postmix()->clear_zell_input_gain();
  postmix()->add_bypass_hpeq(7);
  postmix()->add_bypass_hpeq(8);
  const PostmixBytes hpeq = Convert();
  EXPECT_EQ(hpeq.I32(64), 7);
  EXPECT_EQ(hpeq.I32(52), 8);
  EXPECT_TRUE(OnlyIn(ChangedBytes(hpeq, Baseline()), Bytes({{52, 56}, {64, 68}})));

  // Elements past the sixth are not carried.
  postmix()->clear_bypass_hpeq();
  for (int32_t v = 100; v < 108; ++v) postmix()->add_aeq_enable(v);
  const PostmixBytes aeq = Convert();
  EXPECT_TRUE(WordsAre(aeq, 72, {103, 101, 102, 104, 100, 105}));
  EXPECT_TRUE(AllWithin(ChangedBytes(aeq, Baseline()), 72, 96));
}

TEST_F(PostmixControlsTest, ZellMultiChMinusOneIsStoredAsZero) {
  postmix()->set_zell_multi_ch(-1);
  postmix()->set_zell_stereo_mode(-1);  // no rewrite for this one
  EXPECT_TRUE(WordsAre(Convert(), 16, {-1, 0}));
  postmix()->set_zell_multi_ch(-2);
  EXPECT_EQ(Convert().I32(20), -2);
  postmix()->clear_zell_multi_ch();
  EXPECT_EQ(Convert().I32(20), I32(kPostmixTemplate, 20));

  // The rewrite looks at the word, not at the field: a caller's -1 goes too.
  PostmixBytes callers;
  StoreI32(callers.View(), 20, -1);
  EXPECT_EQ(QVRCS_ConvertPostmixControls(context_, settings_, callers.View()), QVRCS_OK);
  EXPECT_EQ(callers.I32(20), 0);
}

TEST_F(PostmixControlsTest, VelmoSubRecordsAreEachTestedForPresence) {
  auto* gorm = postmix()->mutable_velmo()->mutable_gorm();
  gorm->set_enable(0);
  gorm->set_output_option(3);
  gorm->set_input_gain(40000);
  gorm->set_bass_clarity_level(-5);
  const PostmixBytes block = Convert();
  EXPECT_EQ(block.I32(172), 0);
  EXPECT_EQ(block.I32(196), 3);
  EXPECT_EQ(block.U16(200), 0x9C40);
  EXPECT_EQ(block.I16(212), -5);
  // Mox3d, Ombra, Velmo's own words and the reserved CC CC stay as they were.
  EXPECT_TRUE(AllWithin(ChangedBytes(block, Baseline()), 172, 214));
}

TEST_F(PostmixControlsTest, Enhance2HasItsOwnOffsetAndStatus) {
  postmix()->mutable_enhance2()->set_master_volume(0);  // the postmix template's default is not 0
  EXPECT_EQ(ChangedBytes(Convert(), Baseline()), Bytes(300, 304));

  // A negative ref_htest is returned after the Zell section and the rewrite.
  postmix()->mutable_enhance2()->add_ref_htest(-1);
  postmix()->mutable_enhance2()->add_ref_htest(7);
  postmix()->mutable_enhance2()->set_mode(2);
  postmix()->mutable_zell()->set_super_stereo(6);
  postmix()->set_zell_multi_ch(-1);
  const PostmixBytes block = Convert(QVRCS_ERR_NEGATIVE_REF_HTEST);
  EXPECT_EQ(block.I32(292), 2);
  EXPECT_EQ(block.I32(352), -1);  // ref_htest[0] of the section at 292
  EXPECT_EQ(block.I32(356), I32(kPostmixTemplate, 356));
  EXPECT_EQ(block.I32(392), 6);
  EXPECT_EQ(block.I32(20), 0);
}

}  // namespace
}  // namespace qvrcs::block_test
