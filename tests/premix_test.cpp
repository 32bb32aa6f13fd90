// The premix block and the Enhance2 section converter.
#include "block_support.h"

namespace qvrcs::block_test {
namespace {

using com::qvr::pb::tech::Enhance2;

class PremixTest : public ::testing::Test {
 protected:
  PremixTest() { QVRCS_InitContext(context_, kRate); }

  // Converts onto the template (or over kFill bytes); the result must be 0.
  PremixBytes Convert(bool useTemplate = true) {
    PremixBytes block;
    EXPECT_EQ(QVRCS_ConvertPremix(context_, settings_, *block.bytes, useTemplate), QVRCS_OK);
    return block;
  }

  ConversionContext context_;
  KorvaSettings settings_;
};

TEST_F(PremixTest, WithoutPremixTheTemplateIsCopiedOrTheCallersBytesKept) {
  EXPECT_EQ(*Convert().bytes, kPremixTemplate);
  EXPECT_TRUE(ChangedBytes(Convert(false), *PremixBytes().bytes).empty());
  // A Dravo record with no field set changes nothing either.
  settings_.mutable_premix()->mutable_dravo();
  EXPECT_EQ(*Convert().bytes, kPremixTemplate);
}

TEST_F(PremixTest, BypassModeWritesAtMostFiveSlots) {
  settings_.mutable_premix()->add_bypass_mode(0);
  settings_.mutable_premix()->add_bypass_mode(1);
  const PremixBytes partial = Convert();
  EXPECT_TRUE(WordsAre(partial, 124, {0, 1}));
  EXPECT_TRUE(AllWithin(ChangedBytes(partial, kPremixTemplate), 124, 132));

  settings_.mutable_premix()->clear_bypass_mode();
  for (int32_t v = 20; v < 27; ++v) settings_.mutable_premix()->add_bypass_mode(v);
  const PremixBytes full = Convert();
  EXPECT_TRUE(WordsAre(full, 124, Ramp(5, 20)));
  EXPECT_TRUE(AllWithin(ChangedBytes(full, kPremixTemplate), 124, 144));
}

TEST_F(PremixTest, NegativeRefHtestStopsEnhance2ButNotThePremixBlock) {
  auto* premix = settings_.mutable_premix();
  for (int32_t v : {5, -2, 9}) premix->mutable_enhance2()->add_ref_htest(v);
  premix->mutable_dravo()->set_mode(3);  // written after the Enhance2 section
  premix->set_headroom_ratio(4);         // written before it
  const PremixBytes block = Convert();   // result 0 checked in Convert()
  EXPECT_TRUE(WordsAre(block, 80, {5, -2}));
  EXPECT_TRUE(SameBytes(*block.bytes, kPremixTemplate, 88, 108));
  EXPECT_EQ(block.I32(8), 3);
  EXPECT_EQ(block.I32(152), 4);
}

// The Enhance2 section on its own, in a buffer of exactly its size.
class Enhance2Test : public ::testing::Test {
 protected:
  using Section = Block<96>;
  int32_t Convert(Section& section) { return QVRCS_ConvertEnhance2(context_, enhance2_, section.View()); }

  ConversionContext context_;
  Enhance2 enhance2_;
};

TEST_F(Enhance2Test, NegativeRefHtestEndsTheSectionAfterStoringIt) {
  enhance2_.set_mode(3);
  enhance2_.set_max_lf_boost(77);
  enhance2_.add_htest(-628);
  for (int32_t v : {100, -1, 200}) enhance2_.add_ref_htest(v);
  Section section;
  EXPECT_EQ(Convert(section), QVRCS_ERR_NEGATIVE_REF_HTEST);
  EXPECT_EQ(section.I32(0), 3);
  EXPECT_EQ(section.I32(92), 77);
  EXPECT_EQ(section.I32(32), -628);
  EXPECT_TRUE(WordsAre(section, 60, {100, -1}));
  EXPECT_TRUE(AllBytes(section, 68, 72, kFill));

  enhance2_.set_ref_htest(1, 0);  // zero is not negative
  EXPECT_EQ(Convert(section), QVRCS_OK);
  EXPECT_EQ(section.I32(68), 200);
}

TEST_F(Enhance2Test, HtestListsFillUpToSevenSlotsAndLimiterHasNone) {
  enhance2_.set_limiter(5);
  Section empty;
  EXPECT_EQ(Convert(empty), QVRCS_OK);
  EXPECT_TRUE(ChangedBytes(empty, *Section().bytes).empty());

  for (int32_t v = 1; v <= 3; ++v) enhance2_.add_htest(v);
  Section partial;
  EXPECT_EQ(Convert(partial), QVRCS_OK);
  EXPECT_EQ(ChangedBytes(partial, *Section().bytes), Bytes(32, 44));

  for (int32_t v = 4; v <= 9; ++v) enhance2_.add_htest(v);
  for (int32_t v = 1; v <= 9; ++v) enhance2_.add_ref_htest(1000 + v);
  Section full;
  EXPECT_EQ(Convert(full), QVRCS_OK);
  EXPECT_TRUE(WordsAre(full, 32, Ramp(7, 1)));
  EXPECT_TRUE(WordsAre(full, 60, Ramp(7, 1001)));
  EXPECT_EQ(ChangedBytes(full, *Section().bytes), Bytes(32, 88));
}

}  // namespace
}  // namespace qvrcs::block_test
