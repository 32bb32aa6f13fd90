// The tuning file reader: one tuning file in, one cache block payload out.
#pragma once

#include <cstdint>

// Parses `filename` as a Qvrcs tuning file, converts the selected korva_v1_1
// settings and, when both conversions succeed, writes the premix block at
// payload offset 0 and the postmix block at payload offset 176 of `outData`
// (a qvr::kCacheBlockSize-byte payload). Returns 0 on success and also when
// the file does not parse (nothing written); -4 for a null argument, a file
// that cannot be opened, an empty selection list or a failed conversion.
int32_t QVRCS_GetPremixData(const char* filename, uint8_t* outData);
