// The postmix control section, bytes 0..411 of the postmix block.
#include "conversion_support.h"

namespace conversion_test {
namespace {

class PostmixControlsTest : public ::testing::Test {
 protected:
  PostmixControlsTest() { QVRCS_InitContext(context_, 48000); }

  // Converts onto a copy of the template and checks the status.
  Postmix Convert(int32_t expectedStatus = QVRCS_OK) {
    Postmix block(kPostmixTemplate);
    EXPECT_EQ(QVRCS_ConvertPostmixControls(context_, settings_, block.View()), expectedStatus);
    return block;
  }

  // Template bytes with the reserved half-word at 278 cleared, as every
  // conversion leaves it.
  static const qvrcs::PostmixBlock& Baseline() {
    static const auto* baseline = [] {
      auto* block = new qvrcs::PostmixBlock(kPostmixTemplate);
      (*block)[278] = 0;
      (*block)[279] = 0;
      return block;
    }();
    return *baseline;
  }

  com::qvr::pb::korva_v1_1::Postmix* postmix() { return settings_.mutable_postmix(); }

  ConversionContext context_;
  KorvaSettings settings_;
};

TEST_F(PostmixControlsTest, WithoutPostmixOnlyTheGeq10bReservedHalfWordIsCleared) {
  const Postmix block = Convert();
  EXPECT_EQ(ChangedBytes(block, kPostmixTemplate), Bytes(278, 280));
  EXPECT_EQ(block.I16(278), 0);
  EXPECT_EQ(kPostmixTemplate[278], 0xCC);

  // The same with a Postmix record that holds nothing.
  postmix();
  EXPECT_EQ(ChangedBytes(Convert(), kPostmixTemplate), Bytes(278, 280));
}

TEST_F(PostmixControlsTest, OverACallersBlockOnlyPresentFieldsAndTheClearedHalfWordChange) {
  postmix()->set_limiter(9);
  Postmix block(kFill);
  EXPECT_EQ(QVRCS_ConvertPostmixControls(context_, settings_, block.View()), QVRCS_OK);
  EXPECT_EQ(ChangedBytes(block, *Postmix(kFill).bytes), Bytes({{12, 16}, {278, 280}}));
  EXPECT_EQ(block.I32(12), 9);
}

TEST_F(PostmixControlsTest, PerChannelArraysFollowTheDspChannelOrder) {
  for (int32_t v = 10; v <= 15; ++v) postmix()->add_zell_input_gain(v);
  const Postmix gains = Convert();
  const int32_t expected[] = {13, 11, 12, 14, 10, 15};
  for (size_t slot = 0; slot < 6; ++slot) EXPECT_EQ(gains.I32(24 + 4 * slot), expected[slot]) << slot;
  EXPECT_TRUE(AllWithin(ChangedBytes(gains, Baseline()), 24, 48));

  // Two elements: slots 4 and 1 only.
  postmix()->clear_zell_input_gain();
  postmix()->add_bypass_hpeq(7);
  postmix()->add_bypass_hpeq(8);
  const Postmix hpeq = Convert();
  EXPECT_EQ(hpeq.I32(64), 7);
  EXPECT_EQ(hpeq.I32(52), 8);
  EXPECT_TRUE(OnlyIn(ChangedBytes(hpeq, Baseline()), Bytes({{52, 56}, {64, 68}})));

  // Elements past the sixth are not carried.
  postmix()->clear_bypass_hpeq();
  for (int32_t v = 100; v < 108; ++v) postmix()->add_aeq_enable(v);
  const Postmix aeq = Convert();
  EXPECT_EQ(aeq.I32(88), 100);
  EXPECT_EQ(aeq.I32(92), 105);
  EXPECT_TRUE(AllWithin(ChangedBytes(aeq, Baseline()), 72, 96));
}

TEST_F(PostmixControlsTest, ScalarWordsAndBypassModeInPlainOrder) {
  postmix()->set_output_device(1);
  postmix()->set_postmix_gain(-300);
  postmix()->set_hpf_enable(1);
  postmix()->set_dc_cut_enable(0);
  postmix()->set_limiter_master_vol(70000);
  postmix()->set_bypass_gain(-2);
  for (int32_t v = 50; v < 57; ++v) postmix()->add_bypass_mode(v);
  const Postmix block = Convert();
  EXPECT_EQ(block.I32(0), 1);
  EXPECT_EQ(block.I32(4), -300);
  EXPECT_EQ(block.I32(8), 1);
  EXPECT_EQ(block.I32(96), 0);
  EXPECT_EQ(block.I32(120), 70000);
  EXPECT_EQ(block.I32(124), -2);
  for (size_t i = 0; i < 5; ++i) EXPECT_EQ(block.I32(100 + 4 * i), 50 + static_cast<int32_t>(i));
  EXPECT_TRUE(AllWithin(ChangedBytes(block, Baseline()), 0, 128));
  EXPECT_EQ(block.I32(12), 1);   // limiter: template
  EXPECT_EQ(block.I32(16), -1);  // zell_stereo_mode: template
}

TEST_F(PostmixControlsTest, ZellMultiChMinusOneIsStoredAsZero) {
  postmix()->set_zell_multi_ch(-1);
  postmix()->set_zell_stereo_mode(-1);  // no rewrite for this one
  Postmix block = Convert();
  EXPECT_EQ(block.I32(20), 0);
  EXPECT_EQ(block.I32(16), -1);

  postmix()->set_zell_multi_ch(-2);
  EXPECT_EQ(Convert().I32(20), -2);

  postmix()->clear_zell_multi_ch();
  EXPECT_EQ(Convert().I32(20), TemplateI32(kPostmixTemplate, 20));

  // The rewrite looks at the word, not at the field: a caller's -1 goes too.
  Postmix callers(kFill);
  qvrcs::StoreI32(callers.View(), 20, -1);
  EXPECT_EQ(QVRCS_ConvertPostmixControls(context_, settings_, callers.View()), QVRCS_OK);
  EXPECT_EQ(callers.I32(20), 0);
}

TEST_F(PostmixControlsTest, VelmoSubRecordsAreEachTestedForPresence) {
  auto* gorm = postmix()->mutable_velmo()->mutable_gorm();
  gorm->set_enable(0);
  gorm->set_output_option(3);
  gorm->set_input_gain(40000);
  gorm->set_bass_clarity_level(-5);
  const Postmix block = Convert();
  EXPECT_EQ(block.I32(172), 0);
  EXPECT_EQ(block.I32(196), 3);
  EXPECT_EQ(block[200], 0x40);
  EXPECT_EQ(block[201], 0x9C);
  EXPECT_EQ(block.I16(212), -5);
  // Mox3d, Ombra, the suite's own words and the reserved CC CC stay as they were.
  EXPECT_TRUE(AllWithin(ChangedBytes(block, Baseline()), 172, 214));
  EXPECT_EQ(block[214], 0xCC);
  EXPECT_EQ(block[215], 0xCC);
}

TEST_F(PostmixControlsTest, VelmoWordsAndHalfWords) {
  auto* velmo = postmix()->mutable_velmo();
  velmo->set_enable(1);
  velmo->set_focus_enable(0);
  velmo->set_input_gain(70000);
  velmo->set_focus_level(-1);
  const Postmix block = Convert();
  EXPECT_EQ(block.I32(216), 1);
  EXPECT_EQ(block.I32(236), 0);
  EXPECT_EQ(block.I16(240), 0x1170);
  EXPECT_EQ(block.I16(248), -1);
  EXPECT_TRUE(AllWithin(ChangedBytes(block, Baseline()), 216, 250));

  velmo->mutable_ombra()->set_speaker_separation_level(65535);
  velmo->mutable_mox3d()->set_center_level(1);
  velmo->mutable_mox3d()->set_enable(0);
  const Postmix sub = Convert();
  EXPECT_EQ(sub[170], 0xFF);
  EXPECT_EQ(sub[171], 0xFF);
  EXPECT_EQ(sub.I16(152), 1);
  EXPECT_EQ(sub.I32(128), 0);
  EXPECT_EQ(sub[154], 0xCC);
  EXPECT_EQ(sub[155], 0xCC);
}

TEST_F(PostmixControlsTest, Geq10bAeqAndZellSections) {
  auto* geq = postmix()->mutable_geq10b();
  geq->set_enable(1);
  geq->set_band0_gain(40000);
  geq->set_band9_gain(70000);
  auto* aeq = postmix()->mutable_aeq();
  aeq->set_enable(1);
  aeq->set_bypass_gain(-2);
  auto* zell = postmix()->mutable_zell();
  zell->set_downmix(0);
  zell->set_bypass_hpeq(5);
  zell->set_limiter(4);              // no slot
  zell->add_super_stereo_coef(123);  // no slot
  const Postmix block = Convert();
  EXPECT_EQ(block.I32(252), 1);
  EXPECT_EQ(block.I16(258), -25536);  // 0x9C40
  EXPECT_EQ(block.I16(276), 0x1170);
  EXPECT_EQ(block.I16(278), 0);
  EXPECT_EQ(block.I32(280), 1);
  EXPECT_EQ(block.I16(288), -2);
  EXPECT_EQ(block[290], 0xCC);
  EXPECT_EQ(block[291], 0xCC);
  EXPECT_EQ(block.I32(388), 0);
  EXPECT_EQ(block.I32(408), 5);

  EXPECT_TRUE(OnlyIn(ChangedBytes(block, Baseline()),
                     Bytes({{252, 256}, {258, 260}, {276, 278}, {280, 284}, {288, 290}, {388, 392},
                            {408, 412}})));
}

TEST_F(PostmixControlsTest, NegativeRefHtestIsReturnedAfterZellAndTheRewrite) {
  postmix()->mutable_enhance2()->add_ref_htest(-1);
  postmix()->mutable_enhance2()->add_ref_htest(7);
  postmix()->mutable_enhance2()->set_mode(2);
  postmix()->mutable_zell()->set_super_stereo(6);
  postmix()->set_zell_multi_ch(-1);
  const Postmix block = Convert(QVRCS_ERR_NEGATIVE_REF_HTEST);
  EXPECT_EQ(block.I32(292), 2);
  EXPECT_EQ(block.I32(352), -1);  // ref_htest[0] of the section at 292
  EXPECT_EQ(block.I32(356), TemplateI32(kPostmixTemplate, 356));
  EXPECT_EQ(block.I32(392), 6);
  EXPECT_EQ(block.I32(20), 0);
}

TEST_F(PostmixControlsTest, PostmixEnhance2HasItsOwnMasterVolumeDefault) {
  EXPECT_EQ(TemplateI32(kPostmixTemplate, 292 + 8), -120);
  EXPECT_EQ(TemplateI32(kPremixTemplate, 20 + 8), 0);
  postmix()->mutable_enhance2()->set_master_volume(0);
  EXPECT_EQ(ChangedBytes(Convert(), Baseline()), Bytes(300, 304));
}

}  // namespace
}  // namespace conversion_test
