// Reading "configurator.cfg": the six output slots, the text-format parse of
// the file, and how file names are joined to the search path.
#pragma once

#include <google/protobuf/io/tokenizer.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "configurator.pb.h"

namespace qvr {

// The slots of "configurator.cfg" in cache block order: a slot's position in
// this table is its cache block index.
struct ConfigSlot {
  const char* name;  // the field's name in the schema
  const com::qvr::korva::configurator::qdsp6::SettingsSet& (
      com::qvr::korva::configurator::qdsp6::ConfiguratorConfig::*get)() const;
};

inline constexpr ConfigSlot kConfigSlots[] = {
    {"attached0", &com::qvr::korva::configurator::qdsp6::ConfiguratorConfig::attached0},
    {"attached1", &com::qvr::korva::configurator::qdsp6::ConfiguratorConfig::attached1},
    {"lineout0", &com::qvr::korva::configurator::qdsp6::ConfiguratorConfig::lineout0},
    {"bluetooth0", &com::qvr::korva::configurator::qdsp6::ConfiguratorConfig::bluetooth0},
    {"combo0", &com::qvr::korva::configurator::qdsp6::ConfiguratorConfig::combo0},
    {"other", &com::qvr::korva::configurator::qdsp6::ConfiguratorConfig::other},
};

// Outcome of reading the configuration file.
enum class ConfigRead {
  kOk,
  kCannotOpen,  // open() failed; errno tells why
  kBadSyntax,   // the text does not parse, or a slot or field is missing
};

// Parses the text-format file at `path` into `config`. Errors go to `errors`
// with their line and column (0-based, as the tokenizer counts them; a
// missing required field is reported at line -1); with no collector they go
// to protobuf's own log. Unknown fields are rejected.
ConfigRead ReadConfiguratorConfig(const std::string& path,
                                  com::qvr::korva::configurator::qdsp6::ConfiguratorConfig& config,
                                  google::protobuf::io::ErrorCollector* errors);

// `dir`, then "/" unless `dir` already ends in one, then `name`.
std::string JoinPath(const std::string& dir, const std::string& name);

}  // namespace qvr
