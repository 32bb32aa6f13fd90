// The premix block and the Enhance2 section converter.
#include "conversion_support.h"

namespace conversion_test {
namespace {

using com::qvr::pb::tech::Enhance2;

class PremixTest : public ::testing::Test {
 protected:
  PremixTest() { QVRCS_InitContext(context_, 48000); }

  // Converts onto the template; the result is checked to be 0 every time.
  Premix Convert() {
    Premix block(kFill);
    EXPECT_EQ(QVRCS_ConvertPremix(context_, settings_, *block.bytes, true), QVRCS_OK);
    return block;
  }

  ConversionContext context_;
  KorvaSettings settings_;
};

TEST_F(PremixTest, WithoutPremixTheTemplateIsCopiedOrTheCallersBytesKept) {
  const Premix fromTemplate = Convert();
  EXPECT_EQ(*fromTemplate.bytes, kPremixTemplate);
  // The reserved half-word goes to the DSP as CC CC.
  EXPECT_EQ(fromTemplate[18], 0xCC);
  EXPECT_EQ(fromTemplate[19], 0xCC);
  EXPECT_EQ(fromTemplate.I32(4), 214748368);
  EXPECT_EQ(fromTemplate.I32(152), 32768);

  Premix untouched(kFill);
  EXPECT_EQ(QVRCS_ConvertPremix(context_, settings_, *untouched.bytes, false), QVRCS_OK);
  for (size_t i = 0; i < qvrcs::kPremixBlockSize; ++i) ASSERT_EQ(untouched[i], kFill) << i;
}

TEST_F(PremixTest, StageWordsLandAtTheirOffsetsAndNothingElseMoves) {
  auto* premix = settings_.mutable_premix();
  premix->set_output_device(2);
  premix->set_stream_gain(-7);
  premix->set_stream_gain_downstream(70000);  // a 32-bit word: no truncation
  premix->set_headroom_limit(-1);
  premix->set_headroom_ratio(12345);
  const Premix block = Convert();
  EXPECT_EQ(block.I32(116), 2);
  EXPECT_EQ(block.I32(120), -7);
  EXPECT_EQ(block.I32(144), 70000);
  EXPECT_EQ(block.I32(148), -1);
  EXPECT_EQ(block.I32(152), 12345);
  EXPECT_TRUE(AllWithin(ChangedBytes(block, kPremixTemplate), 116, 156));
  EXPECT_EQ(block.I32(124), TemplateI32(kPremixTemplate, 124));  // bypass_mode untouched
}

TEST_F(PremixTest, BypassModeWritesAtMostFiveSlots) {
  settings_.mutable_premix()->add_bypass_mode(0);
  settings_.mutable_premix()->add_bypass_mode(1);
  Premix partial = Convert();
  EXPECT_EQ(partial.I32(124), 0);
  EXPECT_EQ(partial.I32(128), 1);
  EXPECT_TRUE(AllWithin(ChangedBytes(partial, kPremixTemplate), 124, 132));
  EXPECT_EQ(partial.I32(132), 0);  // template slots 2..4: 0, 1, 1
  EXPECT_EQ(partial.I32(136), 1);
  EXPECT_EQ(partial.I32(140), 1);

  settings_.mutable_premix()->clear_bypass_mode();
  for (int32_t v = 20; v < 27; ++v) settings_.mutable_premix()->add_bypass_mode(v);
  const Premix full = Convert();
  for (size_t i = 0; i < 5; ++i) EXPECT_EQ(full.I32(124 + 4 * i), 20 + static_cast<int32_t>(i));
  EXPECT_TRUE(AllWithin(ChangedBytes(full, kPremixTemplate), 124, 144));
}

TEST_F(PremixTest, DravoAloneChangesItsSectionWithHalfWordsTruncated) {
  auto* dravo = settings_.mutable_premix()->mutable_dravo();
  dravo->set_enable(1);
  dravo->set_intensity_level(-5);
  dravo->set_mode(70000);
  dravo->set_input_gain(70000);    // 0x11170: low half 0x1170
  dravo->set_output_gain(40000);   // 0x9C40, reads back as -25536
  dravo->set_lkfs_gain(-1);
  const Premix block = Convert();
  EXPECT_EQ(block.I32(0), 1);
  EXPECT_EQ(block.I32(4), -5);
  EXPECT_EQ(block.I32(8), 70000);
  EXPECT_EQ(block[12], 0x70);
  EXPECT_EQ(block[13], 0x11);
  EXPECT_EQ(block[14], 0x40);
  EXPECT_EQ(block[15], 0x9C);
  EXPECT_EQ(block.I16(14), -25536);
  EXPECT_EQ(block.I16(16), -1);
  EXPECT_TRUE(AllWithin(ChangedBytes(block, kPremixTemplate), 0, 18));
  EXPECT_EQ(block[18], 0xCC);
  EXPECT_EQ(block[19], 0xCC);
}

TEST_F(PremixTest, DravoWithSomeFieldsKeepsTheTemplateForTheOthers) {
  settings_.mutable_premix()->mutable_dravo()->set_output_gain(0);
  const Premix block = Convert();
  EXPECT_EQ(block.I16(14), 0);
  EXPECT_TRUE(AllWithin(ChangedBytes(block, kPremixTemplate), 14, 16));

  // A Dravo record with no field set changes nothing.
  settings_.mutable_premix()->mutable_dravo()->Clear();
  EXPECT_EQ(*Convert().bytes, kPremixTemplate);
}

TEST_F(PremixTest, NegativeRefHtestStopsEnhance2ButNotThePremixBlock) {
  auto* premix = settings_.mutable_premix();
  premix->mutable_enhance2()->add_ref_htest(5);
  premix->mutable_enhance2()->add_ref_htest(-2);
  premix->mutable_enhance2()->add_ref_htest(9);
  premix->mutable_dravo()->set_mode(3);  // written after the Enhance2 section
  premix->set_headroom_ratio(4);         // written before it
  const Premix block = Convert();        // result 0 checked in Convert()
  EXPECT_EQ(block.I32(80), 5);
  EXPECT_EQ(block.I32(84), -2);
  for (size_t at = 88; at < 108; at += 4) EXPECT_EQ(block.I32(at), TemplateI32(kPremixTemplate, at));
  EXPECT_EQ(block.I32(8), 3);
  EXPECT_EQ(block.I32(152), 4);
}

TEST_F(PremixTest, UseTemplateFalseWritesOnlyPresentFieldsOverTheCallersBytes) {
  settings_.mutable_premix()->mutable_enhance2()->set_master_volume(-3);
  settings_.mutable_premix()->mutable_dravo()->set_lkfs_gain(0x1234);
  Premix block(kFill);
  EXPECT_EQ(QVRCS_ConvertPremix(context_, settings_, *block.bytes, false), QVRCS_OK);
  EXPECT_EQ(block.I32(20 + 8), -3);
  EXPECT_EQ(block.I16(16), 0x1234);
  EXPECT_EQ(ChangedBytes(block, *Premix(kFill).bytes), Bytes({{16, 18}, {28, 32}}));
}

// The Enhance2 section on its own, in a buffer of exactly its size.
class Enhance2Test : public ::testing::Test {
 protected:
  using Section = Block<96>;

  int32_t Convert(Section& section) {
    return QVRCS_ConvertEnhance2(context_, enhance2_, section.View());
  }

  ConversionContext context_;
  Enhance2 enhance2_;
};

TEST_F(Enhance2Test, NegativeRefHtestEndsTheSectionAfterStoringIt) {
  enhance2_.set_mode(3);
  enhance2_.set_max_lf_boost(77);
  enhance2_.add_htest(-628);
  enhance2_.add_ref_htest(100);
  enhance2_.add_ref_htest(-1);
  enhance2_.add_ref_htest(200);
  Section section(kFill);
  EXPECT_EQ(Convert(section), QVRCS_ERR_NEGATIVE_REF_HTEST);
  EXPECT_EQ(section.I32(0), 3);
  EXPECT_EQ(section.I32(92), 77);
  EXPECT_EQ(section.I32(32), -628);
  EXPECT_EQ(section.I32(60), 100);
  EXPECT_EQ(section.I32(64), -1);
  for (size_t i = 68; i < 72; ++i) EXPECT_EQ(section[i], kFill);

  // Zero is not negative.
  enhance2_.set_ref_htest(1, 0);
  EXPECT_EQ(Convert(section), QVRCS_OK);
  EXPECT_EQ(section.I32(68), 200);
}

TEST_F(Enhance2Test, HtestFillsUpToSevenSlots) {
  for (int32_t v = 1; v <= 3; ++v) enhance2_.add_htest(v);
  Section partial(kFill);
  EXPECT_EQ(Convert(partial), QVRCS_OK);
  EXPECT_EQ(ChangedBytes(partial, *Section(kFill).bytes), Bytes(32, 44));

  for (int32_t v = 4; v <= 9; ++v) enhance2_.add_htest(v);
  for (int32_t v = 1; v <= 9; ++v) enhance2_.add_ref_htest(1000 + v);
  Section full(kFill);
  EXPECT_EQ(Convert(full), QVRCS_OK);
  for (size_t i = 0; i < 7; ++i) {
    EXPECT_EQ(full.I32(32 + 4 * i), 1 + static_cast<int32_t>(i));
    EXPECT_EQ(full.I32(60 + 4 * i), 1001 + static_cast<int32_t>(i));
  }
  EXPECT_EQ(ChangedBytes(full, *Section(kFill).bytes), Bytes(32, 88));
}

TEST_F(Enhance2Test, AbsentRecordOrLimiterAloneChangesNothing) {
  Section section(kFill);
  EXPECT_EQ(Convert(section), QVRCS_OK);
  enhance2_.set_limiter(5);
  EXPECT_EQ(Convert(section), QVRCS_OK);
  EXPECT_TRUE(ChangedBytes(section, *Section(kFill).bytes).empty());
}

TEST(ConversionStatusTest, InitContextAndStatusTexts) {
  ConversionContext context;
  QVRCS_InitContext(context, 44100);
  EXPECT_EQ(context.sampleRate, 44100u);

  const std::set<std::string> texts = {
      QVRCS_StatusText(QVRCS_OK), QVRCS_StatusText(QVRCS_NOTHING_TO_LOAD),
      QVRCS_StatusText(QVRCS_ERR_NEGATIVE_REF_HTEST), QVRCS_StatusText(QVRCS_ERR_NO_COEF_TABLE),
      QVRCS_StatusText(QVRCS_ERR_UNKNOWN_ROOM), QVRCS_StatusText(-5)};
  EXPECT_EQ(texts.size(), 6u);  // each meaning has its own text
  EXPECT_EQ(texts.count(""), 0u);
}

}  // namespace
}  // namespace conversion_test
