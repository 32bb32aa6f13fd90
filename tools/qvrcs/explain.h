// The field-by-field view of what the DSP receives for one tuning file (or
// one payload file): every field of the premix block and the postmix control
// section from the converters' field maps (qvrcs/block_map.h), then every
// section of the rest of the postmix block (qvrcs/sections.h), each with
// its value and where it came from.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/qvrcs/analysis.h"
#include "tools/qvrcs/tuning.h"

namespace qvrcs_tool {

struct Row {
  std::string block;      // "premix", "postmix" or "payload" (the fade areas)
  std::string name;       // field path, "reserved", or section name
  size_t offset = 0;      // in its block
  size_t payloadOffset = 0;
  size_t size = 0;        // bytes
  unsigned width = 0;     // bits of one value
  bool isField = false;   // one value (`value`), else a section (`holds`)
  int64_t value = 0;
  std::string origin;     // file, template, conversion, changed, zero
  std::string source;     // sections: the record the data came from
  std::string note;       // how the value came about, what the section holds
  std::string holds;      // sections: the bytes, decoded
  std::vector<Warning> warnings;  // what check warns of here
};

struct View {
  std::string path;
  bool isPayload = false;
  bool converted = false;        // a tuning file whose settings could be selected
  int32_t premixStatus = 0;
  int32_t postmixStatus = 0;
  std::string failure;           // why the configurator would not upload it, or ""
  std::vector<uint8_t> payload;  // as the blocks stand (a failed conversion: as far as it got)
  std::vector<Row> rows;
  std::vector<Warning> warnings;  // every warning and note check gives the file
};

// Builds the view of one input; a tuning file's conversion is handed back in
// `conversion` when given.
View BuildView(Input& input, std::unique_ptr<Conversion>* conversion = nullptr);

// Rows whose bytes differ between two views (by position: both views have
// the same rows), as pairs of (a, b).
std::vector<std::pair<Row, Row>> DiffViews(const View& a, const View& b);

// What check says of `x` and not of `y`: a difference even where the blocks
// agree (entries past a repeated field's slots change nothing the DSP gets).
// Nothing when either is device-side data, which carries no warnings.
std::vector<Warning> WarningsOnlyIn(const View& x, const View& y);

// How many `width`-bit values differ within a row, and the first one's byte offset in the block.
struct RowDifference {
  size_t values = 0;
  size_t total = 0;
  size_t firstOffset = 0;
};
RowDifference CompareRow(const View& a, const View& b, const Row& row);

}  // namespace qvrcs_tool
