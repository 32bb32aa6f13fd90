// The AEQ record: bank selection by rate, the record layout, failures that
// leave a partly written record, the locator walk and the block's limits.
#include "block_support.h"
#include "qvrcs/record_layout.h"

namespace qvrcs::block_test {
namespace {

using Block = PostmixBytes;
using com::qvr::pb::coef::Aeq;
using com::qvr::pb::coef::FilterBank;
using com::qvr::pb::korva_v1_1::Postmix;
using com::qvr::pb::model::listeningModel;

constexpr size_t kRecord = kAeqRecord;
constexpr size_t kChannel1 = kRecord + kAeqChannel1;
constexpr size_t kRecordEnd = kRecord + kAeqRecordSize;

// A bank whose IIR table for `rate` (if any) holds `coefs`.
void AddBank(Aeq* aeq, std::optional<int32_t> order, std::optional<int32_t> rate,
             std::vector<int32_t> coefs) {
  FilterBank* bank = aeq->add_coefficient_table();
  if (order) bank->set_iirorder(*order);
  if (rate) AddTable32(bank->mutable_iircoefs(), rate, std::move(coefs));
}

Aeq* AddAeq(listeningModel* model, const std::string& uuid) {
  Aeq* aeq = model->add_aeqs();
  aeq->set_uuid(uuid);
  return aeq;
}

// Channel section: order word, -1, the coefficients, zeros up to 336 words.
testing::AssertionResult ChannelIs(const Block& block, size_t at, int32_t order,
                                   const std::vector<int32_t>& coefs) {
  std::vector<int32_t> words(kAeqChannelWords, 0);
  words[0] = order;
  words[1] = -1;
  std::copy(coefs.begin(), coefs.end(), words.begin() + 2);
  return WordsAre(block, at, words);
}

int32_t Load(const listeningModel& model, const std::string& uuid, Block& block) {
  return QVRCS_LoadAeq(uuid, {model}, block.View().At(kRecord), kRate);
}

TEST(AeqLoad, WithMoreThanTwoBanksOnlyBanksWithATableForTheRateCount) {
  listeningModel model;
  Aeq* aeq = AddAeq(&model, "aeq");
  AddBank(aeq, 6, kRate44k, {9, 9});  // no 48000 Hz table: dropped
  AddBank(aeq, std::nullopt, kRate48k, Ramp(10, 100));
  AddBank(aeq, 8, kRate48k, Ramp(334, -500));
  AddBank(aeq, 10, kRate48k, {7});  // a fourth usable bank is ignored
  const std::string before = model.SerializeAsString();

  Block block;
  ASSERT_EQ(Load(model, "AEQ", block), QVRCS_OK);
  EXPECT_TRUE(ChannelIs(block, kRecord, 24, Ramp(10, 100)));  // no iirOrder: 24
  EXPECT_TRUE(ChannelIs(block, kChannel1, 8, Ramp(334, -500)));
  EXPECT_TRUE(AllBytes(block, 0, kRecord, kFill));
  EXPECT_TRUE(AllBytes(block, kRecordEnd, kPostmixBlockSize, kFill));
  // Selection does not touch the listening model.
  EXPECT_EQ(model.SerializeAsString(), before);
}

TEST(AeqLoad, TwoBanksAreTakenAsTheyAreAndAFailureLeavesAPartialRecord) {
  listeningModel model;
  Aeq* first = AddAeq(&model, "first-unusable");
  AddBank(first, 6, kRate44k, {9, 9});
  AddBank(first, 12, kRate48k, {1, 2, 3});
  Aeq* second = AddAeq(&model, "second-unusable");
  AddBank(second, 6, kRate48k, {4, 5});
  AddBank(second, std::nullopt, std::nullopt, {});

  Block block;
  EXPECT_EQ(Load(model, "first-unusable", block), QVRCS_ERR_NO_COEF_TABLE);
  EXPECT_TRUE(ChannelIs(block, kRecord, 6, {}));
  EXPECT_TRUE(ChannelIs(block, kChannel1, 12, {1, 2, 3}));
  EXPECT_TRUE(AllBytes(block, kRecordEnd, kPostmixBlockSize, kFill));

  Block other;
  EXPECT_EQ(Load(model, "second-unusable", other), QVRCS_ERR_NO_COEF_TABLE);
  EXPECT_TRUE(ChannelIs(other, kRecord, 6, {4, 5}));
  EXPECT_TRUE(ChannelIs(other, kChannel1, 24, {}));
}

TEST(AeqLoad, TooFewBanksOrUnknownUuidWriteNothing) {
  listeningModel model;
  AddBank(AddAeq(&model, "one-bank"), 2, kRate48k, {1});
  Aeq* three = AddAeq(&model, "one-usable-of-three");
  AddBank(three, 2, kRate44k, {1});
  AddBank(three, 2, kRate48k, {1});
  AddBank(three, 2, std::nullopt, {});
  AddAeq(&model, "no-banks");

  for (const char* uuid : {"one-bank", "one-usable-of-three", "no-banks", "unknown", ""}) {
    Block block;
    EXPECT_EQ(Load(model, uuid, block), QVRCS_ERR_NO_COEF_TABLE) << uuid;
    EXPECT_TRUE(AllBytes(block, 0, kPostmixBlockSize, kFill)) << uuid;
  }
}

TEST(AeqLoad, LongTablesRunOnButStopAtTheBlockEnd) {
  listeningModel model;
  Aeq* aeq = AddAeq(&model, "long");
  AddBank(aeq, 3, kRate48k, Ramp(340, 1000));
  AddBank(aeq, 4, kRate48k, Ramp(1000, 5000));  // far past the block's end

  Block block;  // exactly the block's size on the heap
  ASSERT_EQ(Load(model, "long", block), QVRCS_OK);
  // Channel 0's overrun reaches words 336..341; channel 1 then rewrites its
  // order (336) and coefficients (338 on), so word 337 keeps channel 0's
  // value 335 instead of -1.
  EXPECT_TRUE(ChannelIs(block, kRecord, 3, Ramp(334, 1000)));
  EXPECT_TRUE(WordsAre(block, kChannel1, {4, 1335}));
  EXPECT_TRUE(WordsAre(block, kChannel1 + 8, Ramp((kPostmixBlockSize - (kChannel1 + 8)) / 4, 5000)));
}

TEST(AeqWalk, FirstLocatorThatLoadsWins) {
  listeningModel model;
  Aeq* good = AddAeq(&model, "good");
  AddBank(good, 1, kRate48k, {11});
  AddBank(good, 2, kRate48k, {22});
  Aeq* alsoGood = AddAeq(&model, "also-good");
  AddBank(alsoGood, 3, kRate48k, {33});
  AddBank(alsoGood, 4, kRate48k, {44});
  Aeq* broken = AddAeq(&model, "broken");
  AddBank(broken, 5, kRate48k, {55});
  AddBank(broken, 6, kRate44k, {66});

  ConversionContext context{kRate};
  auto walk = [&](std::initializer_list<const char*> uuids, Block& block) {
    Postmix postmix;
    for (const char* uuid : uuids) postmix.add_aeqcoef()->set_uuid(uuid);
    postmix.add_aeqcoef()->set_uri("uri-only");  // no uuid: skipped
    return QVRCS_ConvertAeqCoef(context, postmix, {model}, block.View());
  };

  Block unknownThenGood;
  EXPECT_EQ(walk({"unknown", "", "good", "also-good"}, unknownThenGood), QVRCS_OK);
  EXPECT_TRUE(ChannelIs(unknownThenGood, kRecord, 1, {11}));
  EXPECT_TRUE(ChannelIs(unknownThenGood, kChannel1, 2, {22}));

  // A failed attempt is rewritten completely by the next one that loads.
  Block brokenThenGood;
  EXPECT_EQ(walk({"broken", "also-good"}, brokenThenGood), QVRCS_OK);
  EXPECT_TRUE(ChannelIs(brokenThenGood, kRecord, 3, {33}));
  EXPECT_TRUE(ChannelIs(brokenThenGood, kChannel1, 4, {44}));

  Block allFail;
  EXPECT_EQ(walk({"unknown", "broken"}, allFail), QVRCS_ERR_NO_COEF_TABLE);
  EXPECT_TRUE(ChannelIs(allFail, kChannel1, 6, {}));

  Block noUuid;
  EXPECT_EQ(walk({"", ""}, noUuid), QVRCS_NOTHING_TO_LOAD);
  EXPECT_TRUE(AllBytes(noUuid, 0, kPostmixBlockSize, kFill));
}

}  // namespace
}  // namespace qvrcs::block_test
