// qvrcs, the host companion of the configurator: checks, explains,
// converts, diffs, dumps and encodes tuning files with the configurator's
// own reader and converters.
#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace qvrcs_tool {

// Exit statuses of every command.
constexpr int kExitOk = 0;
// check: a slot fails or uploads a blank block, or a warning is raised;
// diff: the inputs differ; explain: the configurator would not upload the
// file; convert: it would not upload the file, or uploads it blank.
constexpr int kExitFindings = 1;
constexpr int kExitUsage = 2;     // bad command line
constexpr int kExitBadInput = 3;  // an input is missing, unreadable or of the wrong kind

// Runs one command line (`args` without the program name), reading the
// input "-" from `in`, writing the command's data to `out` and status and
// error lines ("qvrcs: FILE: what is wrong") to `err`. Returns the exit status.
int Run(const std::vector<std::string>& args, std::istream& in, std::ostream& out, std::ostream& err);

}  // namespace qvrcs_tool
