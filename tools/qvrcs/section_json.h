// A section of the postmix block as JSON data: its records' fields and its
// values as numbers and arrays, decoded from the payload with the same
// record layout the converters write (qvrcs/record_layout.h).
#pragma once

#include <cstdint>
#include <vector>

#include "tools/qvrcs/command.h"
#include "tools/qvrcs/explain.h"

namespace qvrcs_tool {

// The data of section row `row` of a view whose payload is `payload`; null
// for a row that is not a postmix section.
Json SectionData(const std::vector<uint8_t>& payload, const Row& row);

}  // namespace qvrcs_tool
