// Section-by-section description of the postmix block past its control
// section (bytes 412..61467): the fixed words, the room, headphone-EQ and
// AEQ records, and the small coefficient sections, with the settings record
// that feeds each. Built from the section offsets of qvrcs/layout.h; the
// control section before it is described field by field in
// qvrcs/block_map.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qvrcs {

enum class SectionKind : uint8_t {
  kFixedWords,    // i32 words that no conversion writes; template only
  kWord,          // one i32 word from a scalar settings field (`source`)
  kCoefficients,  // a run of values from the chosen CoefTable of `source`
  kRoom,          // room record (qvrcs/record_layout.h), from locators `source`
  kHeadphoneEq,   // headphone equaliser record, from locators `source`
  kAeq,           // two-channel AEQ record, from locators `source`
};

struct SectionInfo {
  std::string name;    // short name, e.g. "velmo_hpf.coefs"
  std::string source;  // dotted path from KorvaSettings, "" for fixed words
  size_t offset = 0;   // absolute byte offset in the postmix block
  size_t size = 0;     // bytes
  unsigned width = 32; // bits per stored value (coefficients: 16 or 32)
  SectionKind kind = SectionKind::kWord;
};

// Every section from kPostmixFixedWords to the end of the block, by
// ascending offset; together they cover that range without gaps.
std::vector<SectionInfo> PostmixSectionMap();

// The section of `map` that holds byte `offset`, or nullptr.
const SectionInfo* SectionAt(const std::vector<SectionInfo>& map, size_t offset);

}  // namespace qvrcs
