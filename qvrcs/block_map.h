// Field-by-field description of the premix block and of the postmix control
// section, built from the field-copy tables (qvrcs/field_tables.h) and the
// section offsets (qvrcs/layout.h): what each converted byte holds and which
// settings field it comes from.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qvrcs {

enum class FieldKind : uint8_t {
  kSetting,     // copied from the settings field named by `path` when present
  kReserved,    // never written by a conversion; keeps the template's bytes
  kAlwaysZero,  // reserved; every conversion stores 0 there
};

struct FieldInfo {
  // Dotted source path from KorvaSettings, using the schema's field names:
  // "premix.dravo.input_gain", or with the element index for a repeated
  // field, "postmix.zell_input_gain[3]". "reserved" for the two other kinds.
  std::string path;
  size_t offset = 0;  // absolute byte offset in the block
  unsigned width = 0; // 32 or 16 (bits); a 16-bit field keeps the value's low half
  FieldKind kind = FieldKind::kSetting;
};

// Every field of the 156-byte premix block, by ascending offset. Together they
// cover the whole block.
std::vector<FieldInfo> PremixFieldMap();

// Every field of the postmix control section (bytes 0..411), by ascending
// offset. Together they cover the whole section. A zell_multi_ch of -1 is
// stored as 0 (the one value rewrite of the conversion).
std::vector<FieldInfo> PostmixControlFieldMap();

// The entry of `map` named `path` (first match), or nullptr.
const FieldInfo* FindField(const std::vector<FieldInfo>& map, const std::string& path);

// One step of a source path: a field name and, for "name[i]", the element index.
struct PathStep {
  std::string name;
  int index = -1;  // -1 when the step names no element
};

// Splits a source path such as "postmix.zell_input_gain[3]" into its steps.
std::vector<PathStep> SplitFieldPath(const std::string& path);

}  // namespace qvrcs
