#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include "tools/qvrcs/command.h"
#include "tools/qvrcs/tool.h"

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  // Standard output through a buffer that keeps why a write failed.
  qvrcs_tool::DescriptorOutput buffer(STDOUT_FILENO);
  std::ostream out(&buffer);
  return qvrcs_tool::Run(args, std::cin, out, std::cerr);
}
