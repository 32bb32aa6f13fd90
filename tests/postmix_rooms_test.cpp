// Rooms and headphone equalisers: uuid packing and matching, the record
// layouts, the statuses, slot capacities and the block's end.
#include "block_support.h"

namespace qvrcs::block_test {
namespace {

using Block = PostmixBytes;
using com::qvr::pb::model::headphoneEq;
using com::qvr::pb::model::listeningModel;
using com::qvr::pb::model::roomModel;

constexpr char kUpperUuid[] = "ABCDEF00-1111-2222-3333-444455556666";
constexpr char kLowerUuid[] = "abcdef00-1111-2222-3333-444455556666";
const std::vector<uint8_t> kPackedUuid = {0xAB, 0xCD, 0xEF, 0x00, 0x11, 0x11, 0x22, 0x22,
                                          0x33, 0x33, 0x44, 0x44, 0x55, 0x55, 0x66, 0x66};

std::vector<uint8_t> Range(const Block& block, size_t from, size_t count) {
  return std::vector<uint8_t>(block.bytes->begin() + static_cast<long>(from),
                              block.bytes->begin() + static_cast<long>(from + count));
}

roomModel* AddRoom(listeningModel* model, const std::string& uuid, std::vector<int32_t> c16) {
  roomModel* room = model->add_rooms();
  room->set_uuid(uuid);
  AddTable16(room->mutable_coefftables(), kRate48k, std::move(c16));
  return room;
}

headphoneEq* AddHeadphoneEq(listeningModel* model, const std::string& uuid, uint32_t length,
                            std::vector<int32_t> c16) {
  headphoneEq* eq = model->add_headphones();
  eq->set_uuid(uuid);
  eq->set_ihpirlength(length);
  AddTable16(eq->mutable_coefftables(), kRate48k, std::move(c16));
  return eq;
}

// ---- UUID packing and matching -----------------------------------------------

// 36 characters of hex pairs in text order, either case, any non-digit as a
// separator; anything else packs the pairs before the fault and zeros after.
TEST(Uuid, PacksHexPairsInTextOrderOrLeavesTrailingZeros) {
  const std::pair<std::string, size_t> cases[] = {
      {kUpperUuid, 16},
      {kLowerUuid, 16},
      {"abcdef00:1111 2222_3333{444455556666", 16},
      {"abcdef00111122223333444455556666", 0},  // 32 characters: not packed at all
      {std::string(kLowerUuid) + "0", 0},       // 37 characters
      {"", 0},
      {"abcdef00-1111-2222-3333-4-4455556666", 10},  // a lone digit ends the scan
      {"a-bcdef0-1111-2222-3333-444455556666", 0},
  };
  for (const auto& [text, packed] : cases) {
    Block block(0xEE);
    EXPECT_EQ(QVRCS_PackUuid(text, block.View().At(100)), packed == 16) << text;
    std::vector<uint8_t> expected(16, 0);
    std::copy(kPackedUuid.begin(), kPackedUuid.begin() + static_cast<long>(packed), expected.begin());
    EXPECT_EQ(Range(block, 100, 16), expected) << text;
    EXPECT_EQ(block[99], 0xEE);
    EXPECT_EQ(block[116], 0xEE);
  }
}

TEST(Uuid, MatchingIgnoresAsciiLetterCaseOnly) {
  EXPECT_TRUE(QVRCS_UuidEqualsIgnoreCase(kUpperUuid, kLowerUuid));
  EXPECT_TRUE(QVRCS_UuidEqualsIgnoreCase("", ""));
  EXPECT_TRUE(QVRCS_UuidEqualsIgnoreCase("Room-1", "rOOM-1"));
  // Not a letter: '@' and '`' differ by the case bit only; bytes above 127
  // are compared as they are.
  for (const auto& [a, b] : {std::pair{"room", "room "}, std::pair{"room", "roon"}, std::pair{"@", "`"},
                             std::pair{"[", "{"}, std::pair{"\xC0", "\xE0"}}) {
    EXPECT_FALSE(QVRCS_UuidEqualsIgnoreCase(a, b)) << a << " " << b;
  }
}

// ---- Rooms -------------------------------------------------------------------

TEST(Room, RecordLayout) {
  listeningModel model;
  roomModel* room = model.add_rooms();
  room->set_uuid(kLowerUuid);
  room->set_channelmask(0x3F);
  room->set_numpairs(6);
  room->set_brirlength(0xFFFFFFFFu);
  room->set_reverbgain(-12);
  room->set_reverbcut(7);
  AddTable16(room->mutable_coefftables(), kRate44k, {9, 9});
  AddTable16(room->mutable_coefftables(), std::nullopt, {8, 8});
  AddTable16(room->mutable_coefftables(), kRate48k, {1, -1, 70000, 32767});
  AddTable16(room->mutable_coefftables(), kRate48k, {5, 5});

  Block block;
  const size_t slot = kFrontRoomSlot;
  ASSERT_EQ(
      QVRCS_LoadRoom(kUpperUuid, {model}, block.View().At(slot), kFrontRoomCapacity, kRate),
      QVRCS_OK);
  std::vector<uint8_t> expected = kPackedUuid;
  const std::vector<uint8_t> rest = {
      0x3F, 0,    0,    0,                             // channel mask
      6,    0,    0,    0,                             // pairs
      0xFF, 0xFF, 0xFF, 0xFF,                          // impulse response length
      0x80, 0xBB, 0,    0,                             // 48000
      0xF4, 0xFF, 0xFF, 0xFF,                          // reverb gain -12
      7,    0,    0,    0,                             // reverb cut
      1,    0,    0xFF, 0xFF, 0x70, 0x11, 0xFF, 0x7F,  // 1, -1, 70000 -> 4464, 32767
  };
  expected.insert(expected.end(), rest.begin(), rest.end());
  EXPECT_EQ(Range(block, slot, expected.size()), expected);
  EXPECT_TRUE(AllBytes(block, 0, slot, kFill));
  EXPECT_TRUE(AllBytes(block, slot + expected.size(), kPostmixBlockSize, kFill));
}

TEST(Room, StatusesLeaveTheSlotUntouched) {
  listeningModel model;
  roomModel* other = AddRoom(&model, "other-rate", {});
  other->mutable_coefftables()->Clear();
  AddTable16(other->mutable_coefftables(), kRate44k, {1});
  AddTable16(other->mutable_coefftables(), std::nullopt, {1});
  AddRoom(&model, "empty-16", {})->mutable_coefftables(0)->add_coeff_32(3);
  AddRoom(&model, "fine", {1});

  for (const auto& [uuid, status] : {std::pair{"", QVRCS_NOTHING_TO_LOAD}, std::pair{"unknown", QVRCS_ERR_UNKNOWN_ROOM},
                                     std::pair{"other-rate", QVRCS_ERR_NO_COEF_TABLE},
                                     std::pair{"EMPTY-16", QVRCS_ERR_NO_COEF_TABLE}}) {
    Block block;
    EXPECT_EQ(QVRCS_LoadRoom(uuid, {model}, block.View().At(kMultichRoomSlot), kMultichRoomCapacity,
                             kRate),
              status)
        << uuid;
    EXPECT_TRUE(AllBytes(block, 0, kPostmixBlockSize, kFill)) << uuid;
  }
  // An empty list of models knows no room at all.
  Block block;
  EXPECT_EQ(QVRCS_LoadRoom("fine", {}, block.View(), kFrontRoomCapacity, kRate),
            QVRCS_ERR_UNKNOWN_ROOM);
}

TEST(Room, CapacityLimitsTheCoefficientCount) {
  listeningModel model;
  AddRoom(&model, "front-max", Ramp(6150, -3000));
  AddRoom(&model, "front-over", Ramp(6151, 0));
  AddRoom(&model, "multi-max", Ramp(16400, 7));
  AddRoom(&model, "multi-over", Ramp(16401, 0));
  for (const auto& [prefix, slot, capacity, values] :
       {std::tuple{"front", kFrontRoomSlot, kFrontRoomCapacity, Ramp(6150, -3000)},
        std::tuple{"multi", kMultichRoomSlot, kMultichRoomCapacity, Ramp(16400, 7)}}) {
    SCOPED_TRACE(prefix);
    Block fits;
    EXPECT_EQ(QVRCS_LoadRoom(std::string(prefix) + "-max", {model}, fits.View().At(slot), capacity, kRate), QVRCS_OK);
    EXPECT_TRUE(HalfWordsAre(fits, slot + 40, values));
    EXPECT_TRUE(AllBytes(fits, slot + capacity, kPostmixBlockSize, kFill));
    Block over;
    EXPECT_EQ(QVRCS_LoadRoom(std::string(prefix) + "-over", {model}, over.View().At(slot), capacity, kRate),
              QVRCS_ERR_RECORD_TOO_LARGE);
    EXPECT_TRUE(AllBytes(over, 0, kPostmixBlockSize, kFill));
  }
}

// ---- Headphone equaliser -----------------------------------------------------

// Longer than 128 taps per channel: length 128, c0 c1, then the first 128
// taps of each channel half of the table, missing values read as zero. (A
// whole table, its uuid and the record filling the 540-byte slot: golden
// usb_headset.hex and max.hex.)
TEST(HeadphoneEq, LongFormKeepsTheFirst128TapsOfEachHalf) {
  listeningModel model;
  AddHeadphoneEq(&model, "short-table", 200, Ramp(10, 1));  // c0 c1 | 3..6 | 7..10
  Block shortTable;
  ASSERT_EQ(QVRCS_LoadHeadphoneEq("short-table", {model}, shortTable.View(), kHeadphoneEqCapacity, kRate),
            QVRCS_OK);
  std::vector<int32_t> first(128, 0), second(128, 0);
  for (int i = 0; i < 8; ++i) first[i] = 3 + i;   // from index 2 to the table's end
  for (int i = 0; i < 4; ++i) second[i] = 7 + i;  // from index 2 + 8/2 = 6
  EXPECT_TRUE(WordsAre(shortTable, 16, {48000, 128}));
  EXPECT_TRUE(HalfWordsAre(shortTable, 24, {1, 2}));
  EXPECT_TRUE(HalfWordsAre(shortTable, 28, first));
  EXPECT_TRUE(HalfWordsAre(shortTable, 28 + 256, second));
  EXPECT_TRUE(AllBytes(shortTable, kHeadphoneEqCapacity, kPostmixBlockSize, kFill));
}

// At most 128 taps: the whole table after its length, however long, up to
// the block's end. (A table that fits: golden headphones.hex and bluetooth.hex.)
TEST(HeadphoneEq, ShortFormCopiesTheWholeTableUpToTheBlockEnd) {
  listeningModel model;
  const std::vector<int32_t> huge = Ramp(40000, 0, 3);
  AddHeadphoneEq(&model, "huge", 128, huge);
  const size_t slot = kHeadphoneEqSlot;
  Block runsOn;  // exactly the block's size on the heap
  ASSERT_EQ(QVRCS_LoadHeadphoneEq("huge", {model}, runsOn.View().At(slot), kHeadphoneEqCapacity, kRate),
            QVRCS_OK);
  EXPECT_TRUE(AllBytes(runsOn, slot, slot + 16, 0)) << "a uuid that does not pack";
  EXPECT_TRUE(WordsAre(runsOn, slot + 16, {48000, 128}));
  EXPECT_TRUE(HalfWordsAre(runsOn, slot + 24, Slice(huge, 0, (kPostmixBlockSize - slot - 24) / 2)));
  EXPECT_TRUE(AllBytes(runsOn, 0, slot, kFill));
}

TEST(HeadphoneEq, UnknownUuidIsNothingToLoadAndEmptyUuidMatchesEmpty) {
  listeningModel model;
  AddHeadphoneEq(&model, "known", 2, {1, 2, 3, 4});
  AddHeadphoneEq(&model, "no-table", 2, {1})->mutable_coefftables(0)->set_samplerate(kRate44k);

  Block block;
  EXPECT_EQ(QVRCS_LoadHeadphoneEq("unknown", {model}, block.View(), 540, kRate), QVRCS_NOTHING_TO_LOAD);
  EXPECT_EQ(QVRCS_LoadHeadphoneEq("", {model}, block.View(), 540, kRate), QVRCS_NOTHING_TO_LOAD);
  EXPECT_EQ(QVRCS_LoadHeadphoneEq("no-table", {model}, block.View(), 540, kRate), QVRCS_ERR_NO_COEF_TABLE);
  EXPECT_TRUE(AllBytes(block, 0, kPostmixBlockSize, kFill));

  AddHeadphoneEq(&model, "", 1, {42});  // a headphone EQ without uuid
  EXPECT_EQ(QVRCS_LoadHeadphoneEq("", {model}, block.View(), 540, kRate), QVRCS_OK);
  EXPECT_EQ(block.I32(20), 1);
  EXPECT_EQ(block.U16(24), 42);
}

}  // namespace
}  // namespace qvrcs::block_test
