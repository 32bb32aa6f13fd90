// Runs the qvrcs tool in this process, as its command line would, with what
// it writes to standard output and error.
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "tools/qvrcs/tool.h"

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};

// `input` is what the tool reads as standard input.
inline ToolRun RunTool(const std::vector<std::string>& args, const std::string& input = "") {
  std::istringstream in(input);
  std::ostringstream out, err;
  const int status = qvrcs_tool::Run(args, in, out, err);
  return ToolRun{status, out.str(), err.str()};
}
