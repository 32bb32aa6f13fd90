#include <iostream>
#include <string>
#include <vector>

#include "tools/qvrcs/tool.h"

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  return qvrcs_tool::Run(args, std::cin, std::cout, std::cerr);
}
