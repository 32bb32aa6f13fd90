#include "configurator/config_file.h"

#include <fcntl.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <google/protobuf/text_format.h>

#include <iterator>

#include "configurator/payload.h"

namespace qvr {

static_assert(std::size(kConfigSlots) == kCacheBlockCount, "one slot per cache block");

ConfigRead ReadConfiguratorConfig(const std::string& path,
                                  com::qvr::korva::configurator::qdsp6::ConfiguratorConfig& config,
                                  google::protobuf::io::ErrorCollector* errors) {
  const int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return ConfigRead::kCannotOpen;
  google::protobuf::io::FileInputStream stream(fd);
  stream.SetCloseOnDelete(true);
  google::protobuf::TextFormat::Parser parser;
  if (errors != nullptr) parser.RecordErrorsTo(errors);
  return parser.Parse(&stream, &config) ? ConfigRead::kOk : ConfigRead::kBadSyntax;
}

std::string JoinPath(const std::string& dir, const std::string& name) {
  std::string path = dir;
  if (path.empty() || path.back() != '/') path += '/';
  return path + name;
}

}  // namespace qvr
