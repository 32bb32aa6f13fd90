// The whole postmix block: template, fill order, the walk rules of rooms and
// headphone EQ, the high-pass section, and what a failing step leaves behind.
#include <functional>

#include "block_support.h"
#include "qvrcs/record_layout.h"

namespace qvrcs::block_test {
namespace {

using com::qvr::pb::korva_v1_1::Postmix;
using com::qvr::pb::model::listeningModel;

constexpr size_t kEnd = kPostmixBlockSize;
constexpr size_t kMultichCoefsAt = kMultichRoomSlot + kRoomCoefs;
constexpr size_t kHpeqCoefsAt = kHeadphoneEqSlot + kHpeqCoefs;

class PostmixBlockTest : public testing::Test {
 public:  // the case table below builds settings through these
  PostmixBlockTest() { QVRCS_InitContext(context_, kRate); }

  Postmix& postmix() { return *settings_.mutable_postmix(); }
  listeningModel& model() { return *postmix().mutable_model(); }

  static void AddRoom(listeningModel& into, const std::string& uuid, const std::vector<int32_t>& c16) {
    auto* room = into.add_rooms();
    room->set_uuid(uuid);
    room->set_numpairs(static_cast<uint32_t>(c16.size()));
    AddTable16(room->mutable_coefftables(), kRate48k, c16);
  }
  void AddHeadphoneEq(const std::string& uuid, const std::vector<int32_t>& c16, int32_t rate) {
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

  int32_t Convert(PostmixBytes& block, bool useTemplate = true, const ListeningModelList& models = {}) {
    return QVRCS_ConvertPostmix(context_, settings_, *block.bytes, useTemplate, models);
  }

  ConversionContext context_;
  KorvaSettings settings_;
};

// Without the template the caller's bytes are the base: only the Velmo orders
// and Gorm sizes are written for absent records. (Over the template, a file
// without coefficient records: golden lineout.hex.)
TEST_F(PostmixBlockTest, EmptySettingsOverTheCallersBytesWriteOnlyTheOrdersAndSizes) {
  PostmixBytes callers;
  ASSERT_EQ(Convert(callers, false), QVRCS_OK);
  EXPECT_TRUE(AllBytes(callers, kPostmixFixedWords, kVelmoHpfOrder, kFill));
  EXPECT_TRUE(WordsAre(callers, kVelmoHpfOrder, {0}));
  EXPECT_TRUE(AllBytes(callers, kVelmoHpfCoefs, kVelmoXoverOrder, kFill));
  EXPECT_TRUE(WordsAre(callers, kVelmoXoverOrder, {0}));
  EXPECT_TRUE(AllBytes(callers, kVelmoXoverLpfCoefs, kGormSpeakerSize, kFill));
  EXPECT_TRUE(WordsAre(callers, kGormSpeakerSize, {0, 0}));
  EXPECT_TRUE(AllBytes(callers, kGormCoefs, kEnd, kFill));
}

// The sections are filled in block order and the first failure ends the
// conversion: what was loaded stays, every later section keeps the template.
TEST_F(PostmixBlockTest, FirstFailureEndsTheConversionInFillOrder) {
  struct Case {
    const char* name;
    std::function<void(PostmixBlockTest&)> setUp;
    int32_t status;
    size_t templateFrom;                          // the template from here to the block's end
    std::function<void(const PostmixBytes&)> loaded;  // what the steps before the failure left, if checked
  };
  const auto multichLoaded = [](const PostmixBytes& b) { EXPECT_TRUE(HalfWordsAre(b, kMultichCoefsAt, {2, 2})); };
  const std::vector<Case> cases = {
      {"control section",
       [](PostmixBlockTest& t) {
         t.postmix().mutable_enhance2()->add_ref_htest(-1);
         AddRoom(t.model(), "a", {1});
         t.postmix().add_multichroom()->set_uuid("a");
       },
       QVRCS_ERR_NEGATIVE_REF_HTEST, kPostmixControlSize, nullptr},
      {"unknown multichannel room between two that load",
       [](PostmixBlockTest& t) {
         AddRoom(t.model(), "b", {2, 2});
         AddRoom(t.model(), "c", {3, 3});
         t.postmix().add_multichroom()->set_uuid("b");
         t.postmix().add_multichroom()->set_uuid("unknown");
         t.postmix().add_multichroom()->set_uuid("c");  // not reached
       },
       QVRCS_ERR_UNKNOWN_ROOM, kFrontRoomSlot, multichLoaded},
      {"front room too large for its slot",
       [](PostmixBlockTest& t) {
         AddRoom(t.model(), "b", {2, 2});
         AddRoom(t.model(), "big", Ramp(6151, 0));
         t.postmix().add_multichroom()->set_uuid("b");
         t.postmix().add_frontroom()->set_uuid("big");
         t.postmix().add_wideroom()->set_uuid("b");
       },
       QVRCS_ERR_RECORD_TOO_LARGE, kFrontRoomSlot, multichLoaded},
      {"last headphone EQ without a table, after one that loads",
       [](PostmixBlockTest& t) {
         t.AddHeadphoneEq("good", {1, 2, 3}, kRate48k);
         t.AddHeadphoneEq("no-table", {9, 9}, kRate44k);
         t.postmix().add_hpeqcoef()->set_uuid("good");
         t.postmix().add_hpeqcoef()->set_uuid("no-table");
       },
       QVRCS_ERR_NO_COEF_TABLE, kHpfOrder,
       [](const PostmixBytes& b) { EXPECT_TRUE(HalfWordsAre(b, kHpeqCoefsAt, {1, 2, 3})); }},
      {"AEQ bank without a table",
       [](PostmixBlockTest& t) {
         t.AddAeq("aeq", kRate44k, kRate48k);
         t.postmix().add_aeqcoef()->set_uuid("aeq");
       },
       QVRCS_ERR_NO_COEF_TABLE, kVelmoHpfOrder, nullptr},  // its partial record: the AEQ tests
      {"Velmo high-pass without a table: after the crossover, before Gorm",
       [](PostmixBlockTest& t) {
         t.postmix().mutable_velmo_xover_coef()->set_order(3);
         AddTable16(t.postmix().mutable_velmo_xover_coef()->mutable_lpf_coeffs(), kRate48k, {31});
         t.postmix().mutable_velmo_hpf_coef()->set_order(2);
         AddTable16(t.postmix().mutable_velmo_hpf_coef()->mutable_hpf_coeffs(), kRate44k, {1});
       },
       QVRCS_ERR_NO_COEF_TABLE, kGormSpeakerSize,
       [](const PostmixBytes& b) { EXPECT_TRUE(WordsAre(b, kVelmoXoverOrder, {3, 31})); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    settings_.Clear();
    c.setUp(*this);
    // Later sections that would load if the conversion went on.
    postmix().mutable_velmo_xover_coef()->set_order(3);
    postmix().mutable_gorm_coef()->set_speaker_size(5);
    PostmixBytes block;
    EXPECT_EQ(Convert(block), c.status);
    if (c.loaded) c.loaded(block);
    EXPECT_TRUE(SameBytes(*block.bytes, kPostmixTemplate, c.templateFrom, kEnd));
  }
}

TEST_F(PostmixBlockTest, WalksKeepTheLastLoadedRoomAndCountOnlyTheLastHeadphoneEq) {
  AddRoom(model(), "a", {1, 1});
  AddRoom(model(), "b", {2, 2});
  postmix().add_multichroom()->set_uuid("a");
  postmix().add_multichroom();  // no uuid: nothing to load, the walk goes on
  postmix().add_multichroom()->set_uuid("b");
  AddHeadphoneEq("no-table", {9, 9}, kRate44k);
  AddHeadphoneEq("good", {1, 2, 3}, kRate48k);
  postmix().add_hpeqcoef()->set_uuid("no-table");
  postmix().add_hpeqcoef()->set_uuid("good");
  PostmixBytes block;
  EXPECT_EQ(Convert(block), QVRCS_OK);
  EXPECT_TRUE(HalfWordsAre(block, kMultichCoefsAt, {2, 2}));
  EXPECT_TRUE(HalfWordsAre(block, kHpeqCoefsAt, {1, 2, 3}));

  // An unknown headphone EQ last is nothing to load, not a failure.
  postmix().add_hpeqcoef()->set_uuid("unknown");
  PostmixBytes unknownLast;
  EXPECT_EQ(Convert(unknownLast), QVRCS_OK);
}

TEST_F(PostmixBlockTest, HighPassTakesTheFirstMatchOnlyIfItFits) {
  auto* hpf = postmix().mutable_hpf_coef();
  AddTable32(hpf->mutable_coeffs(), std::nullopt, Ramp(4, 900));  // no rate: no match
  AddTable32(hpf->mutable_coeffs(), kRate48k, Ramp(21, 100));     // first match, too long
  AddTable32(hpf->mutable_coeffs(), kRate48k, Ramp(4, 200));      // never reached

  // Not an error; the order is stored only when set.
  PostmixBytes tooLong;
  EXPECT_EQ(Convert(tooLong, false), QVRCS_OK);
  EXPECT_TRUE(AllBytes(tooLong, kHpfOrder, kAeqRecord, kFill));
  hpf->set_order(-3);
  PostmixBytes withOrder;
  EXPECT_EQ(Convert(withOrder, false), QVRCS_OK);
  EXPECT_EQ(withOrder.I32(kHpfOrder), -3);
  EXPECT_TRUE(AllBytes(withOrder, kHpfCoefs, kAeqRecord, kFill));

  // A fitting first match is copied; fewer than 20 values leave the rest.
  hpf->mutable_coeffs()->SwapElements(1, 2);
  PostmixBytes fits;
  EXPECT_EQ(Convert(fits, false), QVRCS_OK);
  EXPECT_TRUE(WordsAre(fits, kHpfCoefs, Ramp(4, 200)));
  EXPECT_TRUE(AllBytes(fits, kHpfCoefs + 16, kAeqRecord, kFill));
}

TEST_F(PostmixBlockTest, CallersModelsAreSearchedBeforeThePostmixModel) {
  AddRoom(model(), "shared", {1});
  AddRoom(model(), "own", {2});
  postmix().add_multichroom()->set_uuid("shared");
  postmix().add_frontroom()->set_uuid("own");

  PostmixBytes ownOnly;
  ASSERT_EQ(Convert(ownOnly), QVRCS_OK);
  EXPECT_EQ(ownOnly.U16(kMultichCoefsAt), 1);
  EXPECT_EQ(ownOnly.U16(kFrontRoomSlot + kRoomCoefs), 2);

  listeningModel callers;
  AddRoom(callers, "SHARED", {3});
  const ListeningModelList models = {callers};
  PostmixBytes both;
  ASSERT_EQ(Convert(both, true, models), QVRCS_OK);
  EXPECT_EQ(both.U16(kMultichCoefsAt), 3);
  EXPECT_EQ(both.U16(kFrontRoomSlot + kRoomCoefs), 2);
  EXPECT_EQ(models.size(), 1u);

  // Without a model of its own, the postmix sees the caller's list only.
  postmix().clear_model();
  PostmixBytes callersOnly;
  EXPECT_EQ(Convert(callersOnly, true, models), QVRCS_ERR_UNKNOWN_ROOM);
}

}  // namespace
}  // namespace qvrcs::block_test
