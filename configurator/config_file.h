// Reading "configurator.cfg": the six output slots, the text-format parse of
// the file, and how file names are joined to the search path.
#pragma once

#include <google/protobuf/io/tokenizer.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "audioroute.pb.h"
#include "configurator.pb.h"

namespace qvr {

// The slots of "configurator.cfg" in cache block order: a slot's position in
// this table is its cache block index. `routes` are the outputs a slot's
// tuning is made for (a tuning file's route and output_device numbers): the
// configurator loads a file made for another output just as well, into the
// wrong slot, so the host tools hold files against them.
struct ConfigSlot {
  const char* name;  // the field's name in the schema
  const com::qvr::korva::configurator::qdsp6::SettingsSet& (
      com::qvr::korva::configurator::qdsp6::ConfiguratorConfig::*get)() const;
  com::qvr::pb::wbn::AudioRoute routes[3];
  size_t routeCount;
};

inline constexpr ConfigSlot kConfigSlots[] = {
    {"attached0", &com::qvr::korva::configurator::qdsp6::ConfiguratorConfig::attached0,
     {com::qvr::pb::wbn::AR_OUT_ATTACHED0}, 1},
    {"attached1", &com::qvr::korva::configurator::qdsp6::ConfiguratorConfig::attached1,
     {com::qvr::pb::wbn::AR_OUT_ATTACHED1}, 1},
    {"lineout0", &com::qvr::korva::configurator::qdsp6::ConfiguratorConfig::lineout0,
     {com::qvr::pb::wbn::AR_OUT_LINEOUT}, 1},
    {"bluetooth0", &com::qvr::korva::configurator::qdsp6::ConfiguratorConfig::bluetooth0,
     {com::qvr::pb::wbn::AR_OUT_BLUETOOTH}, 1},
    {"combo0", &com::qvr::korva::configurator::qdsp6::ConfiguratorConfig::combo0,
     {com::qvr::pb::wbn::AR_OUT_COMBO}, 1},
    {"other", &com::qvr::korva::configurator::qdsp6::ConfiguratorConfig::other,
     {com::qvr::pb::wbn::AR_OUT_DIGITAL, com::qvr::pb::wbn::AR_OUT_ATTACHED2, com::qvr::pb::wbn::AR_OUT_DEFAULT}, 3},
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
