// Helpers shared by the coefficient, room, headphone-EQ and AEQ converters:
// sample-rate matching and packing of coefficient lists into a block.
#pragma once

#include <cstddef>
#include <cstdint>

#include "coefs.pb.h"
#include "qvrcs/block_io.h"

namespace qvrcs {

using CoefValues = google::protobuf::RepeatedField<int32_t>;

// A table's rate is a signed field, the working rate an unsigned one; they
// are compared as numbers, so a negative table rate never matches.
inline bool SampleRateEquals(int32_t tableRate, uint32_t rate) {
  return static_cast<int64_t>(tableRate) == static_cast<int64_t>(rate);
}

// Value-only selection: the table's sampleRate value (0 when absent) is
// compared, its presence is not consulted.
inline bool TableRateIs(const com::qvr::pb::coef::CoefTable& table, uint32_t rate) {
  return SampleRateEquals(table.samplerate(), rate);
}

// Value `index` of a list, or 0 when the list is shorter.
inline int32_t ValueOrZero(const CoefValues& values, size_t index) {
  return index < static_cast<size_t>(values.size()) ? values.Get(static_cast<int>(index)) : 0;
}

// Stores every value as a little-endian u16 (low 16 bits) from section
// offset `offset` on. The count is not bounded by the section: values run
// on into what follows, and those that would land past the block's end are
// dropped.
void PackCoeff16(BlockView view, size_t offset, const CoefValues& values);

// Same for verbatim i32 words.
void PackCoeff32(BlockView view, size_t offset, const CoefValues& values);

}  // namespace qvrcs
