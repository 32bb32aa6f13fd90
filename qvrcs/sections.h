// The postmix block past its control section (bytes 412..61467), section by
// section: the fixed words, the room, headphone-EQ and AEQ records and the
// small coefficient sections, with the settings record that feeds each.
//
// The converters place their records through this table, report what they
// wrote against its rows (qvrcs/trace.h), and the tools name and decode the
// block with it. The control section before it is described field by field
// in qvrcs/block_map.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

#include "qvrcs/layout.h"

namespace qvrcs {

// One row per section, in block order.
enum class SectionId : uint8_t {
  kFixedWords,
  kMultichRoom,
  kFrontRoom,
  kWideRoom,
  kHeadphoneEq,
  kHighPassOrder,
  kHighPassCoefs,
  kAeq,
  kVelmoHighPassOrder,
  kVelmoHighPassCoefs,
  kVelmoCrossoverOrder,
  kVelmoCrossoverLowPass,
  kVelmoCrossoverHighPass,
  kGormSpeaker,
  kGormAnalysis,
  kGormCoefficients,
  kNone,  // not a tail section: the premix block or the postmix control section
};

enum class SectionKind : uint8_t {
  kFixedWords,    // i32 words that no conversion writes; template only
  kWord,          // one i32 word from a scalar field of a coefficient record (`source`)
  kCoefficients,  // a run of values from the chosen CoefTable of `source`
  kRoom,          // room record (qvrcs/record_layout.h), from locators `source`
  kHeadphoneEq,   // headphone equaliser record, from locators `source`
  kAeq,           // two-channel AEQ record, from locators `source`
};

struct SectionInfo {
  SectionId id;
  const char* name;    // short name, e.g. "velmo_hpf.coefs"
  const char* source;  // dotted path from KorvaSettings, "" for fixed words
  size_t offset;       // absolute byte offset in the postmix block
  size_t size;         // bytes
  unsigned width;      // bits per stored value (coefficients: 16 or 32)
  SectionKind kind;
  // The settings field that switches on the filter these coefficients feed
  // ("" when none does): a filter enabled with no coefficient is suspect.
  const char* enable = "";

  constexpr size_t end() const { return offset + size; }
  // Values of `width` bits the section holds.
  constexpr size_t capacity() const { return size * 8 / width; }
};

inline constexpr SectionInfo kPostmixSections[] = {
    {SectionId::kFixedWords, "fixed_words", "", kPostmixFixedWords, kMultichRoomSlot - kPostmixFixedWords, 32,
     SectionKind::kFixedWords},
    {SectionId::kMultichRoom, "multich_room", "postmix.multichRoom", kMultichRoomSlot, kMultichRoomCapacity, 16,
     SectionKind::kRoom},
    {SectionId::kFrontRoom, "front_room", "postmix.frontRoom", kFrontRoomSlot, kFrontRoomCapacity, 16,
     SectionKind::kRoom},
    {SectionId::kWideRoom, "wide_room", "postmix.wideRoom", kWideRoomSlot, kWideRoomCapacity, 16,
     SectionKind::kRoom},
    {SectionId::kHeadphoneEq, "hpeq", "postmix.hpeqCoef", kHeadphoneEqSlot, kHeadphoneEqCapacity, 16,
     SectionKind::kHeadphoneEq},
    {SectionId::kHighPassOrder, "hpf.order", "postmix.hpf_coef.order", kHpfOrder, kHpfCoefs - kHpfOrder, 32,
     SectionKind::kWord},
    {SectionId::kHighPassCoefs, "hpf.coefs", "postmix.hpf_coef.coeffs", kHpfCoefs, 4 * kHpfMaxCoefs, 32,
     SectionKind::kCoefficients, "postmix.hpf_enable"},
    {SectionId::kAeq, "aeq", "postmix.aeqCoef", kAeqRecord, kAeqRecordSize, 32, SectionKind::kAeq},
    {SectionId::kVelmoHighPassOrder, "velmo_hpf.order", "postmix.velmo_hpf_coef.order", kVelmoHpfOrder,
     kVelmoHpfCoefs - kVelmoHpfOrder, 32, SectionKind::kWord},
    {SectionId::kVelmoHighPassCoefs, "velmo_hpf.coefs", "postmix.velmo_hpf_coef.hpf_coeffs", kVelmoHpfCoefs,
     2 * kVelmoHpfMaxCoefs, 16, SectionKind::kCoefficients, "postmix.velmo.hpf_enable"},
    {SectionId::kVelmoCrossoverOrder, "velmo_xover.order", "postmix.velmo_xover_coef.order", kVelmoXoverOrder,
     kVelmoXoverLpfCoefs - kVelmoXoverOrder, 32, SectionKind::kWord},
    {SectionId::kVelmoCrossoverLowPass, "velmo_xover.lpf_coefs", "postmix.velmo_xover_coef.lpf_coeffs",
     kVelmoXoverLpfCoefs, 2 * kVelmoXoverCoefs, 16, SectionKind::kCoefficients},
    {SectionId::kVelmoCrossoverHighPass, "velmo_xover.hpf_coefs", "postmix.velmo_xover_coef.hpf_coeffs",
     kVelmoXoverHpfCoefs, 2 * kVelmoXoverCoefs, 16, SectionKind::kCoefficients},
    {SectionId::kGormSpeaker, "gorm.speaker_size", "postmix.gorm_coef.speaker_size", kGormSpeakerSize,
     kGormAnalysisSize - kGormSpeakerSize, 32, SectionKind::kWord},
    {SectionId::kGormAnalysis, "gorm.analysis_size", "postmix.gorm_coef.analysis_size", kGormAnalysisSize,
     kGormCoefs - kGormAnalysisSize, 32, SectionKind::kWord},
    {SectionId::kGormCoefficients, "gorm.coefs", "postmix.gorm_coef.coeffs", kGormCoefs, 4 * kGormMaxCoefs, 32,
     SectionKind::kCoefficients},
};

inline constexpr size_t kPostmixSectionCount = std::size(kPostmixSections);

constexpr const SectionInfo& Section(SectionId id) { return kPostmixSections[static_cast<size_t>(id)]; }

// Rows in id order, tiling the block from the end of the control section to
// the block's end without gaps.
constexpr bool SectionsTile() {
  size_t next = kPostmixFixedWords;
  for (size_t i = 0; i < kPostmixSectionCount; ++i) {
    const SectionInfo& s = kPostmixSections[i];
    if (static_cast<size_t>(s.id) != i || s.offset != next || s.size == 0 || s.size % (s.width / 8) != 0) {
      return false;
    }
    next = s.offset + s.size;
  }
  return next == kPostmixBlockSize && kPostmixFixedWords == kPostmixControlSize;
}
static_assert(SectionsTile(), "the tail sections tile the postmix block after its control section");
static_assert(kPostmixSectionCount == static_cast<size_t>(SectionId::kNone), "one row per section id");

// The section that holds byte `offset` of the postmix block, or nullptr.
inline const SectionInfo* SectionAt(size_t offset) {
  for (const SectionInfo& section : kPostmixSections) {
    if (offset >= section.offset && offset < section.end()) return &section;
  }
  return nullptr;
}

}  // namespace qvrcs
