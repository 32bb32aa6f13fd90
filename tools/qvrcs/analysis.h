// What the conversion made of a tuning file, in words: which record a failing
// status comes from, where each coefficient section's data came from, and
// the data the configurator accepts without a word although it is almost
// certainly wrong.
//
// The outcome itself always comes from the real converters (tuning.h); this
// only names the records involved. The locator walks run the converters' own
// loaders (QVRCS_LoadRoom, QVRCS_LoadHeadphoneEq, QVRCS_LoadAeq) into a
// scratch block, one locator at a time, to learn each locator's status.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "qvrcs/qvrcs.h"
#include "tools/qvrcs/tuning.h"

namespace qvrcs_tool {

// The models the converter searches for `settings` when the reader calls it:
// the reader passes none, so only the postmix record's own model.
ListeningModelList ModelsOf(const KorvaSettings& settings);

// Value of the settings field at a block map path ("postmix.velmo.gorm.level",
// "premix.bypass_mode[3]"); false when the field (or a record on the way, or
// the element) is absent from the file.
bool ValueAt(const KorvaSettings& settings, const std::string& path, int32_t& value);

// One locator of a room, headphone-EQ or AEQ list, as its loader saw it.
struct LocatorOutcome {
  std::string locator;  // "postmix.frontRoom[1]"
  std::string uuid;
  int32_t status = 0;
  std::string what;     // the record found and what became of it, or why it failed
  size_t count = 0;     // values written from the record's table(s)
  int32_t sampleRate = 0;
  std::string firstRecord;  // the record found, "" when none
  uint32_t ihpirLength = 0; // headphone EQ: the filter length the file gives
  size_t end = 0;           // one past the last byte written (0: not known)
  std::string wrap;         // coeff_16 values that do not fit 16 bits, or ""
  std::vector<std::string> overruns;  // runs past the record's own section
};

// What one section of the postmix block past the control section got from
// the tuning file.
struct SectionOrigin {
  bool fromFile = false;   // the file's data is what the section holds
  std::string source;      // the record the data came from
  std::string detail;      // rate, count, end, cuts
  size_t end = 0;          // one past the last byte the data reaches (0: unknown)
};

// Per section of qvrcs::PostmixSectionMap(), by section name.
struct Analysis {
  std::vector<LocatorOutcome> rooms[3];  // multich, front, wide
  std::vector<LocatorOutcome> hpeqs;
  std::vector<LocatorOutcome> aeqs;
  std::vector<std::pair<std::string, SectionOrigin>> sections;
  std::vector<std::string> overruns;  // coefficient runs past their section, or not loaded

  const SectionOrigin* Section(const std::string& name) const;
};

Analysis Analyse(const KorvaSettings& settings);

// The record that caused a failed conversion, in one line; "" when the
// conversion succeeded. `message` is the whole file (to tell, for instance,
// that a room sits in a model the configurator does not search).
std::string DiagnoseFailure(const Qvrcs& message, const Conversion& conversion);

struct Warning {
  std::string code;     // short stable identifier, e.g. "wrap16"
  std::string message;  // one line
  // A note: behaviour the configurator applies by design and that tuning
  // sometimes relies on (a long headphone filter cut to 128 taps, a forgiven
  // headphone EQ locator). Shown in verbose and JSON output; never fails a check.
  bool note = false;
};

// Data of the file that converts without an error but is almost certainly
// wrong. Not for a file that does not parse (the caller knows that).
std::vector<Warning> FindSuspicious(const Qvrcs& message, const Conversion& conversion);

}  // namespace qvrcs_tool
