// `qvrcs check` over many inputs in one run: each a search path (a folder
// with its configurator.cfg) or a single tuning file checked as one slot
// would be. Inputs are checked by up to `jobs` threads (the configurator's
// reader and converters keep no state between calls and log through the
// sink each check gives them) and handed back in input order.
#pragma once

#include <functional>
#include <istream>
#include <string>
#include <vector>

#include "tools/qvrcs/check.h"
#include "tools/qvrcs/inputs.h"

namespace qvrcs_tool {

// The most inputs checked at once (check -j).
constexpr unsigned kMaxJobs = 256;

struct CheckedInput {
  std::string input;      // as given
  bool isSet = false;     // a search path, else a single file
  std::string error;      // why the input could not be checked ("" when it was)
  CheckReport report;
};

struct BatchOptions {
  std::string devicePath = kDevicePath;
  Format format = Format::kAuto;  // single files
  unsigned jobs = 1;
};

// Checks every input; `done` is called once per input, in input order, on
// the calling thread, as soon as it and every input before it are checked.
// `in` is standard input for the input "-" (a single file).
void CheckInputs(const std::vector<std::string>& inputs, const BatchOptions& options, std::istream& in,
                 const std::function<void(const CheckedInput&)>& done);

// Checks one input on this thread.
CheckedInput CheckInput(const std::string& input, const BatchOptions& options, std::istream& in);

}  // namespace qvrcs_tool
