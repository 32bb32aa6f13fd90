// The block maps against the converters. (The templates are checked complete
// by the compiler and pinned byte for byte by tests/golden/templates.hex.)
#include "block_support.h"
#include "qvrcs/block_map.h"

namespace qvrcs::block_test {
namespace {


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
  ExpectMapMatchesConverter(PremixFieldMap(), kPremixBlockSize, kPremixTemplate,
                            [&](const KorvaSettings& s, PremixBytes& block) {
                              return QVRCS_ConvertPremix(context, s, *block.bytes, true);
                            });
  ExpectMapMatchesConverter(PostmixControlFieldMap(), kPostmixControlSize, kPostmixTemplate,
                            [&](const KorvaSettings& s, PostmixBytes& block) {
                              return QVRCS_ConvertPostmixControls(context, s, block.View());
                            });
}

}  // namespace
}  // namespace qvrcs::block_test
