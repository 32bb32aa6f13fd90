// `qvrcs plot` and `qvrcs report`: the filters a tuning file gives the DSP as
// pictures, and one self-contained page per run for whole tuning sets.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "tools/qvrcs/command.h"
#include "tools/qvrcs/response.h"
#include "tools/qvrcs/tuning.h"

namespace CLI {
class App;
}

namespace qvrcs_tool {

// The filter sections of one input as the DSP receives them: converted by the
// reader's steps, with the conversion's trace saying which record reached
// each slot and how many values it brought (a tuning file, whose reading the
// conversion takes over), or taken as they stand (a payload file).
std::vector<FilterResponse> FiltersOf(Input& input, const std::vector<std::string>& sections);

// The same for a tuning file already converted.
std::vector<FilterResponse> FiltersOf(const Conversion& conversion, const std::vector<std::string>& sections);

// `text` with the characters that mean something in HTML replaced by entities.
std::string EscapeHtml(const std::string& text);

// The page for the search paths `dirs`: every slot's outcome and warnings as
// `check` gives them, the block summary of `explain`, and the filter plots
// inline. No scripts, nothing loaded from elsewhere.
std::string ReportPage(const std::vector<std::string>& dirs);

// The two commands on the command line.
struct FilterCommands {
  CLI::App* plot = nullptr;
  CLI::App* report = nullptr;
  std::vector<std::string> plotArgs;  // files, then section names
  std::vector<std::string> dirs;
  std::string output;
  std::string plotFormat;  // svg or png; "" by the output's name
  int block = -1;          // of a cache dump
  std::string reportOutput;
};
void AddFilterCommands(CLI::App& app, FilterCommands& commands);
// -1 when neither command was given, else the exit status.
int RunFilterCommands(const FilterCommands& commands, const Streams& s);

}  // namespace qvrcs_tool
