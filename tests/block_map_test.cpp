// The block maps against the converters, and the templates built from their
// descriptions.
#include "block_support.h"
#include "qvrcs/block_map.h"

namespace block_test {
namespace {

using qvrcs::FieldInfo;
using qvrcs::FieldKind;

// A value per map entry that tells the entries apart in both halves and is
// neither negative (ref_htest) nor -1 (zell_multi_ch).
int32_t Distinct(size_t index) { return static_cast<int32_t>(0x10000 * (index + 1) + 0x100 + index); }

// The entries tile [0, size) in order, 16 or 32 bits wide; a fully set
// record converted onto `reference` puts into every entry its own value (low
// half for 16 bits), the reference's bytes (CC CC) for a reserved half-word
// and 0 for the cleared one.
template <size_t N, typename Converter>
void ExpectMapMatchesConverter(const std::vector<FieldInfo>& map, size_t size,
                               const std::array<uint8_t, N>& reference, Converter convert) {
  size_t next = 0;
  KorvaSettings settings;
  for (size_t i = 0; i < map.size(); ++i) {
    const FieldInfo& field = map[i];
    ASSERT_TRUE(field.width == 16 || field.width == 32) << field.path;
    EXPECT_EQ(field.offset, next) << field.path;
    EXPECT_EQ(field.path == "reserved", field.kind != FieldKind::kSetting) << field.path;
    next = field.offset + field.width / 8;
    if (field.kind == FieldKind::kSetting) {
      EXPECT_TRUE(SetByPath(settings, field.path, Distinct(i))) << field.path;
    }
  }
  EXPECT_EQ(next, size);

  Block<N> block(reference);
  ASSERT_EQ(convert(settings, block), QVRCS_OK);
  for (size_t i = 0; i < map.size(); ++i) {
    const FieldInfo& field = map[i];
    const auto stored = [&](const Block<N>& b) {
      return field.width == 16 ? b.I16(field.offset) : b.I32(field.offset);
    };
    const int32_t expected = field.kind == FieldKind::kAlwaysZero ? 0
                             : field.kind == FieldKind::kReserved ? stored(Block<N>(reference))
                             : field.width == 16                  ? static_cast<int16_t>(Distinct(i) & 0xFFFF)
                                                                  : Distinct(i);
    EXPECT_EQ(stored(block), expected) << field.path << " @" << field.offset;
  }
  EXPECT_TRUE(AllWithin(ChangedBytes(block, reference), 0, size)) << "nothing past the mapped bytes";
}

TEST(BlockMapTest, MapsMatchTheConvertersFieldForField) {
  ConversionContext context;
  QVRCS_InitContext(context, kRate);
  ExpectMapMatchesConverter(qvrcs::PremixFieldMap(), qvrcs::kPremixBlockSize, kPremixTemplate,
                            [&](const KorvaSettings& s, PremixBytes& block) {
                              return QVRCS_ConvertPremix(context, s, *block.bytes, true);
                            });
  ExpectMapMatchesConverter(qvrcs::PostmixControlFieldMap(), qvrcs::kPostmixControlSize, kPostmixTemplate,
                            [&](const KorvaSettings& s, PostmixBytes& block) {
                              return QVRCS_ConvertPostmixControls(context, s, block.View());
                            });
}

TEST(BlockMapTest, PathsNameTheSettingsFieldsForPresenceTests) {
  const std::vector<FieldInfo> map = qvrcs::PostmixControlFieldMap();
  const FieldInfo* gain = qvrcs::FindField(map, "postmix.zell_input_gain[3]");
  ASSERT_NE(gain, nullptr);
  EXPECT_EQ(gain->offset, 24u);  // element 3 goes to channel slot 0
  EXPECT_EQ(qvrcs::FindField(map, "postmix.zell_input_gain[6]"), nullptr);
  const FieldInfo* level = qvrcs::FindField(map, "postmix.velmo.gorm.level");
  ASSERT_NE(level, nullptr);
  EXPECT_EQ(level->width, 16u);


  const std::vector<FieldInfo> premix = qvrcs::PremixFieldMap();
  EXPECT_NE(qvrcs::FindField(premix, "premix.enhance2.ref_htest[6]"), nullptr);
  EXPECT_EQ(qvrcs::FindField(premix, "premix.enhance2.limiter"), nullptr);
}

TEST(TemplateTest, DescriptionsAreComplete) {
  auto premix = std::make_unique<qvrcs::PremixBlock>();
  premix->fill(0);
  EXPECT_TRUE(qvrcs::BuildPremixTemplate(*premix));
  EXPECT_EQ(*premix, kPremixTemplate);
  auto postmix = std::make_unique<qvrcs::PostmixBlock>();
  postmix->fill(0);
  EXPECT_TRUE(qvrcs::BuildPostmixTemplate(*postmix));
  EXPECT_EQ(*postmix, kPostmixTemplate);
}

// Spot values of each kind of default, written here independently of the
// descriptions, and the areas that are zero.
TEST(TemplateTest, SpotValuesAndZeroAreas) {
  const PremixBytes pre(kPremixTemplate);
  EXPECT_TRUE(WordsAre(pre, 4, {214748368}));
  EXPECT_TRUE(WordsAre(pre, 152, {32768}));
  EXPECT_EQ(pre.U16(18), 0xCCCC);

  const PostmixBytes t(kPostmixTemplate);
  EXPECT_TRUE(WordsAre(t, 12, {1, -1, 0, -3980}));
  for (size_t at : {154u, 214u, 250u, 278u, 290u}) EXPECT_EQ(t.U16(at), 0xCCCC) << at;
  EXPECT_EQ(t.I32(300), -120) << "the postmix Enhance2 master volume";
  EXPECT_TRUE(WordsAre(t, qvrcs::kPostmixFixedWords, {3000, 9540, 5000, 5000}));
  EXPECT_TRUE(AllBytes(t, qvrcs::kMultichRoomSlot, qvrcs::kAeqRecord, 0)) << "rooms, headphone EQ, high-pass";
  // AEQ: the same pass-through bank in both channel sections, 13 unity sections.
  const size_t channel = 4 * qvrcs::kAeqChannelWords;
  for (size_t base : {qvrcs::kAeqRecord, qvrcs::kAeqRecord + channel}) {
    EXPECT_TRUE(WordsAre(t, base, {24, -1, 2, 0x40000000, 0, 0, 0, 0, 2}));
    EXPECT_TRUE(WordsAre(t, base + 4 * 74, {2, 0x40000000, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(AllBytes(t, base + 4 * 80, base + channel, 0));
  }
  EXPECT_TRUE(AllBytes(t, qvrcs::kVelmoHpfOrder, qvrcs::kGormSpeakerSize, 0)) << "Velmo high-pass, crossover";
  EXPECT_TRUE(WordsAre(t, qvrcs::kGormSpeakerSize, {20, 20, 2814040}));
  EXPECT_EQ(t.I32(qvrcs::kGormCoefs + 32), 2814040) << "the Gorm filter is given twice";
  EXPECT_EQ(t.I32(qvrcs::kGormCoefs + 64), 2);
  EXPECT_EQ(t.I32(qvrcs::kPostmixBlockSize - 4), 1930561280);
}

}  // namespace
}  // namespace block_test
