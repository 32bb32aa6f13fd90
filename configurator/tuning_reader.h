// The tuning file reader: one tuning file in, one cache block payload out.
#pragma once

#include <cstdint>

#include "korva_v1_1.pb.h"
#include "qvrcsPB.pb.h"

namespace qvr {
// The rate every conversion works at: the DSP's.
constexpr uint32_t kDspSampleRate = 48000;
}  // namespace qvr

// Parses `filename` as a Qvrcs tuning file, converts the selected korva_v1_1
// settings and, when both conversions succeed, writes the premix block at
// payload offset 0 and the postmix block at payload offset 176 of `outData`
// (a qvr::kCacheBlockSize-byte payload). Returns 0 on success and also when
// the file does not parse (nothing written); -4 for a null argument, a file
// that cannot be opened, an empty selection list or a failed conversion.
int32_t QVRCS_GetPremixData(const char* filename, uint8_t* outData);

// The settings the configurator converts from a parsed tuning file:
// workspace[0].routeConfiguration[0].tech[0].korva_v1_1 (its default instance
// when absent; the second settings version and every later element are
// ignored). When one of the three lists is empty, returns nullptr and sets
// `missing` to the empty list's name, e.g. "tech in routeConfiguration 0".
const com::qvr::pb::korva_v1_1::KorvaSettings* QVRCS_SelectSettings(
    const com::qvr::pb::wbn::Qvrcs& message, const char** missing);
