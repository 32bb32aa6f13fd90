#include "configurator/config_file.h"

#include <fcntl.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <google/protobuf/text_format.h>

#include <iterator>
#include <memory>

#include "configurator/payload.h"

namespace qvr {

static_assert(std::size(kConfigSlots) == kCacheBlockCount, "one slot per cache block");

namespace {

namespace pb = google::protobuf;
using com::qvr::korva::configurator::qdsp6::ConfiguratorConfig;

// The text parse needs descriptors and reflection. Asking the generated
// message for them first builds protobuf's own schema (descriptor.proto) into
// the generated pool, which costs more than the whole parse; a pool holding
// only this file's schema, taken from the generated code's encoded copy,
// parses the same text with the same names, rules and error messages.
struct ConfigSchema {
  pb::DescriptorPool pool;
  const pb::Descriptor* type = nullptr;
};

constexpr char kConfigTypeName[] = "com.qvr.korva.configurator.qdsp6.ConfiguratorConfig";

// False when the encoded schema does not build (then the generated message
// is parsed directly).
bool BuildConfigSchema(ConfigSchema& schema) {
  const pb::internal::DescriptorTable& table = descriptor_table_configurator_2eproto;
  if (table.num_deps != 0) return false;  // a pool of one file holds no imports
  pb::FileDescriptorProto file;
  if (!file.ParseFromArray(table.descriptor, table.size)) return false;
  // Options change nothing in a text parse; building them would look up
  // descriptor.proto's schema after all.
  file.clear_options();
  for (pb::DescriptorProto& message : *file.mutable_message_type()) message.clear_options();
  if (schema.pool.BuildFile(file) == nullptr) return false;
  schema.type = schema.pool.FindMessageTypeByName(kConfigTypeName);
  return schema.type != nullptr;
}

}  // namespace

ConfigRead ReadConfiguratorConfig(const std::string& path, ConfiguratorConfig& config,
                                  pb::io::ErrorCollector* errors) {
  const int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return ConfigRead::kCannotOpen;
  pb::io::FileInputStream stream(fd);
  stream.SetCloseOnDelete(true);
  pb::TextFormat::Parser parser;
  if (errors != nullptr) parser.RecordErrorsTo(errors);

  ConfigSchema schema;
  if (!BuildConfigSchema(schema)) {
    return parser.Parse(&stream, &config) ? ConfigRead::kOk : ConfigRead::kBadSyntax;
  }
  pb::DynamicMessageFactory factory(&schema.pool);
  const std::unique_ptr<pb::Message> text(factory.GetPrototype(schema.type)->New());
  if (!parser.Parse(&stream, text.get())) return ConfigRead::kBadSyntax;
  // Same schema on both sides: the wire form carries every field across.
  std::string wire;
  if (!text->SerializeToString(&wire) || !config.ParseFromString(wire)) return ConfigRead::kBadSyntax;
  return ConfigRead::kOk;
}

std::string JoinPath(const std::string& dir, const std::string& name) {
  std::string path = dir;
  if (path.empty() || path.back() != '/') path += '/';
  return path + name;
}

}  // namespace qvr
