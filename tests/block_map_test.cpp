// The block maps against the converters, and the templates built from them.
#include "conversion_support.h"
#include "qvrcs/block_map.h"

namespace conversion_test {
namespace {

using qvrcs::FieldInfo;
using qvrcs::FieldKind;

// The entries are sorted, 16 or 32 bits wide, do not overlap and leave no gap
// in [0, size).
void ExpectTiles(const std::vector<FieldInfo>& map, size_t size) {
  size_t next = 0;
  for (const FieldInfo& field : map) {
    ASSERT_TRUE(field.width == 16 || field.width == 32) << field.path;
    EXPECT_EQ(field.offset, next) << field.path;
    EXPECT_EQ(field.path == "reserved", field.kind != FieldKind::kSetting) << field.path;
    next = field.offset + field.width / 8;
  }
  EXPECT_EQ(next, size);
}

// A value per map entry that tells the entries apart in both halves and is
// neither negative (ref_htest) nor -1 (zell_multi_ch).
int32_t Distinct(size_t index) {
  return static_cast<int32_t>(0x10000 * (index + 1) + 0x100 + index);
}

int32_t Stored(const uint8_t* block, size_t size, const FieldInfo& field) {
  return field.width == 16 ? qvrcs::LoadI16(block, size, field.offset)
                           : qvrcs::LoadI32(block, size, field.offset);
}

int32_t AsStored(int32_t value, unsigned width) {
  return width == 16 ? static_cast<int16_t>(value & 0xFFFF) : value;
}

// Sets every settings field the map names to its distinct value.
KorvaSettings FillAll(const std::vector<FieldInfo>& map) {
  KorvaSettings settings;
  for (size_t i = 0; i < map.size(); ++i) {
    if (map[i].kind != FieldKind::kSetting) continue;
    EXPECT_TRUE(SetByPath(settings, map[i].path, Distinct(i))) << map[i].path;
  }
  return settings;
}

// Every entry holds what the conversion of a fully set record put there:
// its own value for a field, the template's bytes for a reserved half-word,
// 0 for the cleared one.
template <size_t N>
void ExpectEveryEntryHolds(const std::vector<FieldInfo>& map, const Block<N>& block,
                           const std::array<uint8_t, N>& reference) {
  for (size_t i = 0; i < map.size(); ++i) {
    const FieldInfo& field = map[i];
    const int32_t got = Stored(block.bytes->data(), N, field);
    switch (field.kind) {
      case FieldKind::kSetting:
        EXPECT_EQ(got, AsStored(Distinct(i), field.width)) << field.path << " @" << field.offset;
        break;
      case FieldKind::kReserved:
        EXPECT_EQ(got, Stored(reference.data(), N, field)) << "reserved @" << field.offset;
        EXPECT_EQ(reference[field.offset], 0xCC);
        break;
      case FieldKind::kAlwaysZero:
        EXPECT_EQ(got, 0) << "@" << field.offset;
        break;
    }
  }
}

TEST(BlockMapTest, PremixMapMatchesTheConverterFieldForField) {
  const std::vector<FieldInfo> map = qvrcs::PremixFieldMap();
  ExpectTiles(map, qvrcs::kPremixBlockSize);

  const KorvaSettings settings = FillAll(map);
  ConversionContext context;
  QVRCS_InitContext(context, 48000);
  Premix block(kFill);
  ASSERT_EQ(QVRCS_ConvertPremix(context, settings, *block.bytes, true), QVRCS_OK);
  ExpectEveryEntryHolds(map, block, kPremixTemplate);
}

TEST(BlockMapTest, PostmixMapMatchesTheConverterFieldForField) {
  const std::vector<FieldInfo> map = qvrcs::PostmixControlFieldMap();
  ExpectTiles(map, qvrcs::kPostmixControlSize);

  const KorvaSettings settings = FillAll(map);
  ConversionContext context;
  QVRCS_InitContext(context, 48000);
  Postmix block(kPostmixTemplate);
  ASSERT_EQ(QVRCS_ConvertPostmixControls(context, settings, block.View()), QVRCS_OK);
  ExpectEveryEntryHolds(map, block, kPostmixTemplate);
  // Nothing past the control section.
  EXPECT_TRUE(AllWithin(ChangedBytes(block, kPostmixTemplate), 0, qvrcs::kPostmixControlSize));
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

  // The path reaches the field through reflection.
  KorvaSettings settings;
  settings.mutable_postmix()->mutable_velmo()->mutable_gorm()->set_level(1);
  const PathTarget target = Resolve(settings, level->path);
  ASSERT_NE(target.field, nullptr);
  EXPECT_TRUE(target.message->GetReflection()->HasField(*target.message, target.field));
  EXPECT_EQ(Resolve(settings, "postmix.velmo.gorm.nonexistent").field, nullptr);

  const std::vector<FieldInfo> premix = qvrcs::PremixFieldMap();
  ASSERT_NE(qvrcs::FindField(premix, "premix.enhance2.ref_htest[6]"), nullptr);
  EXPECT_EQ(qvrcs::FindField(premix, "premix.enhance2.limiter"), nullptr);
}

TEST(TemplateTest, DescriptionsAreCompleteAndBuildTheTemplates) {
  auto premix = std::make_unique<qvrcs::PremixBlock>();
  premix->fill(0);
  EXPECT_TRUE(qvrcs::BuildPremixTemplate(*premix));
  EXPECT_EQ(*premix, kPremixTemplate);
  auto postmix = std::make_unique<qvrcs::PostmixBlock>();
  postmix->fill(0);
  EXPECT_TRUE(qvrcs::BuildPostmixTemplate(*postmix));
  EXPECT_EQ(*postmix, kPostmixTemplate);
}

TEST(TemplateTest, SpotValuesOfThePostmixTemplate) {
  const Postmix t(kPostmixTemplate);
  EXPECT_EQ(t.I32(12), 1);
  EXPECT_EQ(t.I32(16), -1);
  EXPECT_EQ(t.I32(24), -3980);
  for (size_t at : {154u, 214u, 250u, 278u, 290u}) EXPECT_EQ(t.I16(at), static_cast<int16_t>(0xCCCC)) << at;
  EXPECT_EQ(t.I32(412), 3000);
  EXPECT_EQ(t.I32(416), 9540);
  EXPECT_EQ(t.I32(424), 5000);

  // Rooms, headphone EQ and high-pass: zero.
  for (size_t i = qvrcs::kMultichRoomSlot; i < qvrcs::kAeqRecord; ++i) ASSERT_EQ(t[i], 0) << i;
  // AEQ: the same pass-through bank in both channel sections.
  const size_t channel = 4 * qvrcs::kAeqChannelWords;
  for (size_t base : {qvrcs::kAeqRecord, qvrcs::kAeqRecord + channel}) {
    EXPECT_EQ(t.I32(base), 24);
    EXPECT_EQ(t.I32(base + 4), -1);
    EXPECT_EQ(t.I32(base + 8), 2);
    EXPECT_EQ(t.I32(base + 12), 0x40000000);
    EXPECT_EQ(t.I32(base + 4 * 74), 2);  // the 13th section
    EXPECT_EQ(t.I32(base + 4 * 75), 0x40000000);
    for (size_t i = base + 4 * 80; i < base + channel; ++i) ASSERT_EQ(t[i], 0) << i;
  }
  // Velmo high-pass and crossover: zero.
  for (size_t i = qvrcs::kVelmoHpfOrder; i < qvrcs::kGormSpeakerSize; ++i) ASSERT_EQ(t[i], 0) << i;
  // Gorm: sizes, the filter twice, the tail.
  EXPECT_EQ(t.I32(qvrcs::kGormSpeakerSize), 20);
  EXPECT_EQ(t.I32(qvrcs::kGormAnalysisSize), 20);
  EXPECT_EQ(t.I32(qvrcs::kGormCoefs), 2814040);
  EXPECT_EQ(t.I32(qvrcs::kGormCoefs + 32), 2814040);
  EXPECT_EQ(t.I32(qvrcs::kGormCoefs + 64), 2);
  EXPECT_EQ(t.I32(qvrcs::kPostmixBlockSize - 4), 1930561280);
}

}  // namespace
}  // namespace conversion_test
