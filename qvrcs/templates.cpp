// The default blocks, built by the compiler.
//
// Every converted field and reserved half-word takes the default of its row
// in the field tables; the parts of the postmix block that no settings field
// feeds are written here from the section offsets of qvrcs/layout.h. Every
// other byte is zero. The static_asserts below fail the build when a byte of
// the premix block or of the postmix control section has no default.
#include "qvrcs/templates.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "qvrcs/field_tables.h"
#include "qvrcs/record_layout.h"

namespace qvrcs {
namespace {

// Reserved half-words hold the bytes CC CC in both templates (the one that
// every conversion clears included).
constexpr int32_t kReservedFill = 0xCCCC;

// The postmix block's Enhance2 master volume; the premix block takes the
// row's default.
constexpr int32_t kPostmixMasterVolume = -120;

// Bytes 412..427: written by no conversion.
constexpr int32_t kPostmixFixedWordValues[] = {3000, 9540, 5000, 5000};

// AEQ record: both channel sections hold the same pass-through filter bank,
// the order 24 and a -1, then 13 unity sections; the rest of the section is zero.
constexpr int32_t kAeqPassThroughHeader[] = {kAeqDefaultOrder, kAeqMarker};
constexpr int32_t kAeqUnitySection[] = {2, 1073741824 /* 0x40000000 */, 0, 0, 0, 0};
constexpr size_t kAeqUnitySections = 13;
static_assert(sizeof(kAeqPassThroughHeader) + kAeqUnitySections * sizeof(kAeqUnitySection) <=
              4 * kAeqChannelWords);

// Gorm coefficient section: the filter is given twice, then the tail.
constexpr int32_t kGormDefaultSpeakerSize = 20;
constexpr int32_t kGormDefaultAnalysisSize = 20;
constexpr int32_t kGormDefaultFilter[] = {2814040,     2141855616, -506586,  2146125056,
                                          -1072390720, -3698533,   2143796224, -1070076928};
constexpr int32_t kGormDefaultTail[] = {2,          296389504,   -594970624, 298597504,
                                        2139484928, -1065802048, 3,          1930561280};
static_assert(2 * std::size(kGormDefaultFilter) + std::size(kGormDefaultTail) == kGormMaxCoefs);

// A block under construction, with the bytes that got a default marked.
template <size_t N>
struct Image {
  std::array<uint8_t, N> bytes{};
  std::array<bool, N> described{};

  constexpr void Put(size_t offset, unsigned width, int32_t value) {
    const auto u = static_cast<uint32_t>(value);
    for (size_t i = 0; i < width / 8; ++i) {
      bytes[offset + i] = static_cast<uint8_t>(u >> (8 * i));
      described[offset + i] = true;
    }
  }
  template <size_t M>
  constexpr void PutWords(size_t offset, const int32_t (&words)[M]) {
    for (size_t i = 0; i < M; ++i) Put(offset + 4 * i, 32, words[i]);
  }
  template <class Msg>
  constexpr void Fields(const char* /*record*/, size_t section, const FieldCopyTable<Msg>& table) {
    for (size_t i = 0; i < table.count; ++i) {
      Put(section + table.entries[i].offset, static_cast<unsigned>(table.width), table.entries[i].templ);
    }
  }
  // The defaults are listed slot by slot, in block order.
  template <class Msg>
  constexpr void Fields(const char* /*record*/, size_t section, const RepeatedCopyEntry<Msg>& entry) {
    for (size_t slot = 0; slot < entry.slots; ++slot) Put(section + entry.offset + 4 * slot, 32, entry.templ[slot]);
  }
  constexpr void Reserved(size_t offset) { Put(offset, 16, kReservedFill); }
  constexpr void AlwaysZero(size_t offset) { Reserved(offset); }
  constexpr bool Described(size_t from, size_t to) const {
    for (size_t i = from; i < to; ++i) {
      if (!described[i]) return false;
    }
    return true;
  }
};

constexpr Image<kPremixBlockSize> BuildPremix() {
  Image<kPremixBlockSize> image;
  VisitPremixBlock(image);
  return image;
}

constexpr Image<kPostmixBlockSize> BuildPostmix() {
  Image<kPostmixBlockSize> image;
  VisitPostmixControls(image);
  image.Put(kPostmixEnhance2Section + OffsetOf(kEnhance2Words, "master_volume"), 32, kPostmixMasterVolume);

  image.PutWords(kPostmixFixedWords, kPostmixFixedWordValues);
  for (size_t channel = 0; channel < kAeqChannels; ++channel) {
    const size_t section = kAeqRecord + (channel == 0 ? kAeqChannel0 : kAeqChannel1);
    image.PutWords(section, kAeqPassThroughHeader);
    for (size_t s = 0; s < kAeqUnitySections; ++s) {
      image.PutWords(section + sizeof(kAeqPassThroughHeader) + sizeof(kAeqUnitySection) * s, kAeqUnitySection);
    }
  }
  image.Put(kGormSpeakerSize, 32, kGormDefaultSpeakerSize);
  image.Put(kGormAnalysisSize, 32, kGormDefaultAnalysisSize);
  image.PutWords(kGormCoefs, kGormDefaultFilter);
  image.PutWords(kGormCoefs + sizeof(kGormDefaultFilter), kGormDefaultFilter);
  image.PutWords(kGormCoefs + 2 * sizeof(kGormDefaultFilter), kGormDefaultTail);
  return image;
}

constexpr Image<kPremixBlockSize> kPremixImage = BuildPremix();
constexpr Image<kPostmixBlockSize> kPostmixImage = BuildPostmix();
static_assert(kPremixImage.Described(0, kPremixBlockSize), "every premix byte has a default");
static_assert(kPostmixImage.Described(0, kPostmixControlSize), "every control-section byte has a default");
static_assert(kPostmixImage.Described(kPostmixFixedWords, kMultichRoomSlot), "the fixed words have defaults");

}  // namespace
}  // namespace qvrcs

// Constant initialisation: the bytes are in the binary's read-only data.
namespace qvrcs {

constexpr PremixBlock kPremixTemplate = kPremixImage.bytes;
constexpr PostmixBlock kPostmixTemplate = kPostmixImage.bytes;

}  // namespace qvrcs
