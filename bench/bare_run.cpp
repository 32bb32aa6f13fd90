// The work no design of the configurator can avoid, and nothing else: parse
// "configurator.cfg" in text format from the search path, read and parse the
// six tuning files it names, and write as many log lines as a successful run
// of the configurator writes. Exit status 0 when everything parsed.
#include <fcntl.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <google/protobuf/text_format.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "configurator.pb.h"
#include "configurator/config_file.h"
#include "configurator/log.h"
#include "configurator/settings.h"
#include "qvrcsPB.pb.h"

namespace {

// Log lines of a successful run of the configurator over six slots.
constexpr int kLogLines = 53;

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::string dir = argv[1];
  com::qvr::korva::configurator::qdsp6::ConfiguratorConfig config;
  const int fd = open((dir + "/" + qvr::kConfigFileName).c_str(), O_RDONLY);
  if (fd < 0) return 1;
  google::protobuf::io::FileInputStream input(fd);
  const bool configOk = google::protobuf::TextFormat::Parse(&input, &config);
  close(fd);
  if (!configOk) return 1;

  int failed = 0;
  for (const qvr::ConfigSlot& slot : qvr::kConfigSlots) {
    std::ifstream file(dir + "/" + (config.*slot.get)().filename(), std::ios::in | std::ios::binary);
    com::qvr::pb::wbn::Qvrcs message;
    if (!file.is_open() || !message.ParseFromIstream(&file)) ++failed;
  }
  for (int i = 0; i < kLogLines; ++i) {
    QVR_LOG("bare run, log line %d of %d", i + 1, kLogLines);
  }
  return failed == 0 ? 0 : 1;
}
