// The physical limit of the configurator's job: read and parse the tuning
// files named on the command line exactly as the tuning file reader does
// (binary input stream, Qvrcs::ParseFromIstream), and nothing else.
// Exit status 0 when every file parsed.
#include <fstream>

#include "qvrcsPB.pb.h"

int main(int argc, char** argv) {
  int failed = 0;
  for (int i = 1; i < argc; ++i) {
    std::ifstream file(argv[i], std::ios::in | std::ios::binary);
    com::qvr::pb::wbn::Qvrcs message;
    if (!file.is_open() || !message.ParseFromIstream(&file)) ++failed;
  }
  return failed == 0 ? 0 : 1;
}
