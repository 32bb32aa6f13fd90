// What the conversion made of a tuning file, in words: which record a failing
// status comes from, where each section of the postmix block got its data,
// and the data the configurator accepts without a word although it is almost
// certainly wrong.
//
// Everything here is read from the converters' trace (qvrcs/trace.h) and the
// reader's selection: the tool formats their decisions, it does not make
// them again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "qvrcs/sections.h"
#include "tools/qvrcs/tuning.h"

namespace qvrcs_tool {

// One locator of a room, headphone-EQ or AEQ list, as its loader took it.
struct LocatorOutcome {
  std::string locator;  // "postmix.frontRoom[1]"
  int index = -1;       // in its list
  std::string uuid;
  int32_t status = 0;
  std::string what;     // the record found and what became of it, or why it failed
  size_t count = 0;     // values written from the record's table(s)
  int32_t sampleRate = 0;
  std::string firstRecord;  // the record found, "" when none
  const google::protobuf::Message* record = nullptr;  // the record found (points into the settings)
  uint32_t ihpirLength = 0; // headphone EQ: the filter length the file gives
  uint32_t taps = 0;        // headphone EQ: taps per channel of a cut (long) filter, 0 when not cut
  size_t end = 0;           // one past the last byte written (0: not known)
  std::string wrap;         // coeff_16 values that do not fit 16 bits, or ""
  std::vector<std::string> overruns;  // runs past the record's own section
  // What the DSP gets silently wrong from a record that loads: (code, text).
  std::vector<std::pair<std::string, std::string>> problems;
};

// What one section of the postmix block past the control section got from
// the tuning file.
struct SectionOrigin {
  bool reached = false;    // the conversion got to this section
  bool fromFile = false;   // the file's data is what the section holds
  std::string source;      // the record the data came from
  std::string detail;      // rate, count, end, cuts
  size_t end = 0;          // one past the last byte the data reaches (0: unknown)
  int chosen = -1;         // locator sections: the locator whose record it holds (-1: none), as the converter says
};

struct Analysis {
  std::vector<LocatorOutcome> rooms[3];  // multich, front, wide
  std::vector<LocatorOutcome> hpeqs;
  std::vector<LocatorOutcome> aeqs;
  SectionOrigin sections[qvrcs::kPostmixSectionCount];  // by qvrcs::SectionId
  // Coefficient runs past their section, or not loaded, by the section they belong to.
  std::vector<std::pair<qvrcs::SectionId, std::string>> overruns;

  const SectionOrigin& Section(qvrcs::SectionId id) const { return sections[static_cast<size_t>(id)]; }
  // The locators of a room, headphone-EQ or AEQ section, in list order.
  const std::vector<LocatorOutcome>& Walk(qvrcs::SectionId id) const;
  // The locator whose record the section holds in the end; nullptr: none.
  const LocatorOutcome* Chosen(qvrcs::SectionId id) const;
};

Analysis Analyse(const Conversion& conversion);

// The record that caused a failed conversion, in one line; "" when the
// conversion succeeded. The whole file is looked at (to tell, for instance,
// that a room sits in a model the configurator does not search).
std::string DiagnoseFailure(const Conversion& conversion);

struct Warning {
  std::string code;     // short stable identifier, e.g. "wrap16"
  std::string message;  // one line
  // A note: behaviour the configurator applies by design and that tuning
  // sometimes relies on (a long headphone filter cut to 128 taps, a forgiven
  // headphone EQ locator). Shown in verbose and JSON output; never fails a check.
  bool note = false;
  // Where explain shows it: a field path ("postmix.zell_input_gain[0]") or a
  // section name ("front_room"); "" for the file as a whole.
  std::string at;
};

// Data of the file that converts without an error but is almost certainly
// wrong. Not for a file that does not parse (the caller knows that).
std::vector<Warning> FindSuspicious(const Conversion& conversion);

}  // namespace qvrcs_tool
