#include <malloc.h>
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include "tools/qvrcs/command.h"
#include "tools/qvrcs/tool.h"

int main(int argc, char** argv) {
  // A check reads and converts slot after slot into buffers of the same large
  // sizes: kept in the heap, they are not handed back to the kernel after each
  // slot only to be faulted in and zeroed again for the next (a fifth of a
  // check's time went there).
  mallopt(M_MMAP_THRESHOLD, 16 << 20);
  mallopt(M_TRIM_THRESHOLD, 64 << 20);
  const std::vector<std::string> args(argv + 1, argv + argc);
  // Standard output through a buffer that keeps why a write failed.
  qvrcs_tool::DescriptorOutput buffer(STDOUT_FILENO);
  std::ostream out(&buffer);
  return qvrcs_tool::Run(args, std::cin, out, std::cerr);
}
