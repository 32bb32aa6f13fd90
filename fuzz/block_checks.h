// What every converted block must hold, whatever the settings: the bytes no
// conversion writes keep the template's value, the ones every conversion
// zeroes are zero. Derived from the block maps, so it follows the tables.
#pragma once

#include <cstdint>

namespace fuzz {

// `premix` is a 156-byte premix block converted from the template.
void CheckPremixBlock(const uint8_t* premix);

// `postmix` is a 61468-byte postmix block converted from the template.
void CheckPostmixBlock(const uint8_t* postmix);

}  // namespace fuzz
