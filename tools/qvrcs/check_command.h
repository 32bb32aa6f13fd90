// `qvrcs check INPUT...`: the command around the batch check, writing the
// report as text, as one JSON document or as JSON lines.
#pragma once

#include <string>
#include <vector>

#include "tools/qvrcs/batch.h"
#include "tools/qvrcs/command.h"

namespace qvrcs_tool {

struct CheckOptions {
  std::vector<std::string> inputs;
  BatchOptions batch;
  std::string format = "auto";
  bool json = false;
  bool jsonl = false;
  bool warningsOk = false;
  bool verbose = false;
};

int CheckCommand(CheckOptions options, const Streams& s);

}  // namespace qvrcs_tool
