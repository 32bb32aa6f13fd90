// What every converted block must hold, whatever the settings: the bytes no
// conversion writes keep the template's value, the ones every conversion
// zeroes are zero. Derived from the block maps, so it follows the tables.
#pragma once

#include <cstdint>
#include <string>

#include "qvrcs/trace.h"

namespace fuzz {

// `premix` is a 156-byte premix block converted from the template.
void CheckPremixBlock(const uint8_t* premix);

// `postmix` is a 61468-byte postmix block converted from the template.
void CheckPostmixBlock(const uint8_t* postmix);

// What the trace says the converters wrote is what the blocks hold: every
// settings value and coefficient-record word at its offset (a rewritten word
// as rewritten), every coefficient run that nothing wrote over afterwards
// within its own area.
// Returns "" when they agree, else the first disagreement.
std::string TraceMismatch(const qvrcs::ConversionTrace& trace, const uint8_t* premix, const uint8_t* postmix);

}  // namespace fuzz
