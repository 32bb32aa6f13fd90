// Tuning-file and configurator.cfg schemas: records encoded by hand from field
// numbers and wire types must read as their text form says and be written
// back byte for byte; declared defaults; configurator.cfg's text form; the
// schema set as a whole.
#include <gtest/gtest.h>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/message_differencer.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "audioroute.pb.h"
#include "coefs.pb.h"
#include "configurator.pb.h"
#include "korva2.pb.h"
#include "korva_v1_1.pb.h"
#include "listeningmodel.pb.h"
#include "peq2.pb.h"
#include "qvrcsPB.pb.h"
#include "wire.h"

namespace {

namespace gp = google::protobuf;
namespace wbn = com::qvr::pb::wbn;
namespace v11 = com::qvr::pb::korva_v1_1;
namespace v2 = com::qvr::pb::korva;
namespace tech = com::qvr::pb::tech;
namespace coef = com::qvr::pb::coef;
namespace model = com::qvr::pb::model;
namespace cfg = com::qvr::korva::configurator::qdsp6;

std::string Hex(const std::string& bytes) {
  std::string out;
  char buf[4];
  for (unsigned char c : bytes) {
    std::snprintf(buf, sizeof buf, "%02x ", c);
    out += buf;
  }
  return out;
}

// Bytes written literally, so that the hand encoder is not checked against itself.
std::string Bytes(std::initializer_list<unsigned> values) {
  std::string out;
  for (unsigned v : values) out.push_back(static_cast<char>(v));
  return out;
}

const std::string kMinusOneVarint = Bytes({0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01});

// Every schema file compiled in: the import closure of the tuning-file
// container and of the configuration file.
std::vector<const gp::FileDescriptor*> SchemaFiles() {
  std::vector<const gp::FileDescriptor*> files = {wbn::Qvrcs::descriptor()->file(),
                                                  cfg::ConfiguratorConfig::descriptor()->file()};
  for (size_t i = 0; i < files.size(); ++i) {
    for (int d = 0; d < files[i]->dependency_count(); ++d) {
      if (std::find(files.begin(), files.end(), files[i]->dependency(d)) == files.end()) {
        files.push_back(files[i]->dependency(d));
      }
    }
  }
  return files;
}

std::vector<const gp::Descriptor*> SchemaMessages() {
  std::vector<const gp::Descriptor*> messages;
  for (const gp::FileDescriptor* f : SchemaFiles()) {
    for (int m = 0; m < f->message_type_count(); ++m) messages.push_back(f->message_type(m));
  }
  return messages;
}

// ---- Records encoded by hand ---------------------------------------------------

// A route configuration along the reader's path: tech[0].korva_v1_1.
std::string RouteConfigurationBytes() {
  std::string table;  // CoefTable
  wire::SInt32Field(table, 1, 48000);
  wire::PackedSInt32Field(table, 2, {-1, 2, -3});
  wire::PackedSInt32Field(table, 4, {-32768});
  wire::PackedDoubleField(table, 5, {0.5, -0.25});

  std::string room;  // roomModel
  wire::LengthDelimitedField(room, 1, "Room-A");
  wire::VarintField(room, 4, 4096);  // brirLength, uint32
  wire::Int32Field(room, 7, -6);     // reverbGain, int32 (ten-byte varint)
  wire::VarintField(room, 9, 0);     // extType URI
  wire::LengthDelimitedField(room, 11, table);

  std::string headphone, supplemental;  // headphoneEq
  wire::LengthDelimitedField(headphone, 1, "hp-1");
  wire::VarintField(headphone, 4, 512);
  wire::PackedDoubleField(supplemental, 1, {-3.5});
  wire::LengthDelimitedField(headphone, 10, supplemental);

  std::string listening;  // listeningModel
  wire::LengthDelimitedField(listening, 2, "studio");
  wire::LengthDelimitedField(listening, 3, room);
  wire::LengthDelimitedField(listening, 4, headphone);
  wire::LengthDelimitedField(listening, 6, "model-uuid");

  std::string mox3d, gorm, velmo;
  wire::SInt32Field(mox3d, 9, -4);  // center_level
  wire::SInt32Field(gorm, 14, -7);  // bass_clarity_level
  wire::LengthDelimitedField(velmo, 1, mox3d);
  wire::LengthDelimitedField(velmo, 3, gorm);
  wire::SInt32Field(velmo, 10, 1);  // enable
  wire::SInt32Field(velmo, 20, 9);  // focus_level

  std::string locator, velmo_hpf;
  wire::LengthDelimitedField(locator, 2, "ROOM-a");
  wire::LengthDelimitedField(velmo_hpf, 1, "vhpf");
  wire::LengthDelimitedField(velmo_hpf, 4, table);

  std::string postmix;
  wire::SInt32Field(postmix, 1, -2);               // output_device
  wire::PackedSInt32Field(postmix, 7, {-10, 20});  // zell_input_gain
  wire::SInt32Field(postmix, 10, 1);               // dc_cut_enable
  wire::PackedSInt32Field(postmix, 11, {0, 1, 0}); // bypass_mode
  wire::SInt32Field(postmix, 13, -100);            // bypass_gain
  wire::LengthDelimitedField(postmix, 14, velmo);
  wire::LengthDelimitedField(postmix, 23, listening);
  wire::LengthDelimitedField(postmix, 31, locator);  // multichRoom
  wire::LengthDelimitedField(postmix, 40, velmo_hpf);

  std::string dravo, enhance, premix;
  wire::SInt32Field(dravo, 6, -23);              // lkfs_gain
  wire::PackedSInt32Field(enhance, 9, {-1, 5});  // htest
  wire::SInt32Field(enhance, 13, 1);             // limiter
  wire::LengthDelimitedField(premix, 1, dravo);
  wire::LengthDelimitedField(premix, 2, enhance);
  wire::SInt32Field(premix, 4, -3);  // stream_gain
  wire::SInt32Field(premix, 8, 2);   // headroom_ratio

  std::string fader, settings, other_version, technology, route;
  wire::SInt32Field(fader, 5, -1);  // state
  wire::LengthDelimitedField(settings, 2, premix);
  wire::LengthDelimitedField(settings, 3, postmix);
  wire::LengthDelimitedField(settings, 5, fader);  // postmixFader
  wire::Int32Field(settings, 10, -1);              // route_flags, int32
  wire::LengthDelimitedField(other_version, 1, "2.00.00");
  wire::LengthDelimitedField(technology, 1, other_version);  // korva
  wire::LengthDelimitedField(technology, 2, settings);       // korva_v1_1
  wire::VarintField(route, 1, 9);                            // route AR_OUT_COMBO
  wire::LengthDelimitedField(route, 3, technology);
  return route;
}

const char* const kRouteConfigurationText = R"(
  route: AR_OUT_COMBO
  tech {
    korva { version: "2.00.00" }
    korva_v1_1 {
      premix {
        dravo { lkfs_gain: -23 }
        enhance2 { htest: [-1, 5] limiter: 1 }
        stream_gain: -3
        headroom_ratio: 2
      }
      postmix {
        output_device: -2
        zell_input_gain: [-10, 20]
        dc_cut_enable: 1
        bypass_mode: [0, 1, 0]
        bypass_gain: -100
        velmo { mox3d { center_level: -4 } gorm { bass_clarity_level: -7 } enable: 1 focus_level: 9 }
        model {
          description: "studio"
          rooms {
            uuid: "Room-A" brirLength: 4096 reverbGain: -6 extType: URI
            coeffTables { sampleRate: 48000 coeff_32: [-1, 2, -3] coeff_16: -32768 coeff_f: [0.5, -0.25] }
          }
          headphones { uuid: "hp-1" ihpirLength: 512 supplementalData { responseDb: -3.5 } }
          uuid: "model-uuid"
        }
        multichRoom { uuid: "ROOM-a" }
        velmo_hpf_coef {
          uuid: "vhpf"
          hpf_coeffs { sampleRate: 48000 coeff_32: [-1, 2, -3] coeff_16: -32768 coeff_f: [0.5, -0.25] }
        }
      }
      postmixFader { state: -1 }
      route_flags: -1
    }
  })";

// A profile whose host accessory carries a complete route configuration.
std::string ProfileFileBytes() {
  std::string chain, classification, geq, preset, presets, spec, cert, accessory;
  wire::LengthDelimitedField(chain, 1, "main");
  wire::LengthDelimitedField(chain, 2, "FL");
  wire::LengthDelimitedField(chain, 2, "FR");
  wire::LengthDelimitedField(chain, 3, RouteConfigurationBytes());
  wire::LengthDelimitedField(classification, 2, chain);
  wire::SInt32Field(geq, 12, -5);  // band9_gain
  wire::LengthDelimitedField(preset, 5, geq);
  wire::LengthDelimitedField(presets, 2, preset);
  wire::LengthDelimitedField(spec, 3, classification);
  wire::LengthDelimitedField(spec, 4, presets);
  wire::SInt32Field(cert, 1, -2);
  wire::LengthDelimitedField(accessory, 5, cert);
  wire::LengthDelimitedField(accessory, 8, spec);

  std::string user, personalization, profile, file;
  wire::SInt32Field(user, 2, -1);  // enh2HearingTest: one tag per value, not packed
  wire::SInt32Field(user, 2, 7);
  wire::VarintField(user, 5, 1);  // geqSwitch
  wire::LengthDelimitedField(personalization, 1, user);
  wire::LengthDelimitedField(personalization, 2, "");  // hardware: empty, and still written
  wire::LengthDelimitedField(profile, 8, personalization);
  wire::LengthDelimitedField(profile, 10, accessory);  // accessoryCollection
  wire::LengthDelimitedField(profile, 12, accessory);  // host
  wire::LengthDelimitedField(file, 1, profile);
  wire::LengthDelimitedField(file, 2, "");  // an empty workspace
  return file;
}

std::string ProfileFileText() {
  const std::string accessory = std::string(R"({
    certification { level: -2 }
    spec {
      classification { supportedOutputChains { name: "main" channels: ["FL", "FR"] route {)") +
                                kRouteConfigurationText + R"( } } }
      presets { presetList { geqSettings { band9_gain: -5 } } }
    }
  })";
  return R"(profile {
    personalization { user { enh2HearingTest: [-1, 7] geqSwitch: true } hardware {} }
    accessoryCollection )" + accessory + "\n host " + accessory + R"(
  }
  workspace {})";
}

struct WireCase {
  const gp::Message& prototype;
  std::string bytes;
  std::string text;
};

TEST(SchemaWire, HandEncodedRecordsReadAsTheirTextFormAndWriteBackByteForByte) {
  std::string workspace, tuningFile;
  wire::VarintField(workspace, 1, 2);  // applyTo AT_CURRENT
  wire::LengthDelimitedField(workspace, 2, RouteConfigurationBytes());
  wire::LengthDelimitedField(tuningFile, 2, workspace);
  std::string bands, band, qAndGain;
  band = Bytes({0x28}) + kMinusOneVarint;  // BandData.type = -1
  wire::SInt32Field(qAndGain, 3, -1);
  wire::AppendTag(qAndGain, 4, wire::kFixed32);
  wire::AppendFloat(qAndGain, 0.5f);
  wire::LengthDelimitedField(bands, 2, band);
  wire::LengthDelimitedField(bands, 2, qAndGain);

  const WireCase cases[] = {
      {wbn::Qvrcs::default_instance(), tuningFile,
       std::string("workspace { applyTo: AT_CURRENT routeConfiguration {") + kRouteConfigurationText + " } }"},
      {wbn::Qvrcs::default_instance(), ProfileFileBytes(), ProfileFileText()},
      // Negative enums and int32 values take ten-byte varints; uint32 does not.
      {tech::ChannelBands::default_instance(), bands,
       "band_data { type: PEQ_BAND_TYPE_NULL } band_data { gain: -1 q: 0.5 }"},
      {model::roomModel::default_instance(),
       Bytes({0x20, 0xff, 0xff, 0xff, 0xff, 0x0f, 0x38}) + kMinusOneVarint + Bytes({0x48}) + kMinusOneVarint,
       "brirLength: 4294967295 reverbGain: -1 extType: NONE"},
      {model::headphoneEq::default_instance(), Bytes({0x28}) + kMinusOneVarint, "extType: NONE"},
      {v11::KorvaSettings::default_instance(), Bytes({0x50}) + kMinusOneVarint, "route_flags: -1"},
      {v2::KorvaSettings::default_instance(), Bytes({0x50}) + kMinusOneVarint, "route_flags: -1"},
      // The zig-zag forms themselves: -1 is the single byte 1.
      {coef::CoefTable::default_instance(), Bytes({0x08, 0x7f, 0x12, 0x01, 0x01, 0x1a, 0x01, 0x02}),
       "sampleRate: -64 coeff_32: -1 coeff_24: 1"},
      {v11::FaderInfo::default_instance(),
       Bytes({0x08, 0x01, 0x10, 0xff, 0xff, 0xff, 0xff, 0x0f, 0x18, 0xfe, 0xff, 0xff, 0xff, 0x0f}),
       "shadow: -1 out_length: -2147483648 hold_length: 2147483647"},
  };
  for (const WireCase& c : cases) {
    SCOPED_TRACE(c.text);
    std::unique_ptr<gp::Message> expected(c.prototype.New());
    ASSERT_TRUE(gp::TextFormat::ParseFromString(c.text, expected.get()));
    EXPECT_EQ(Hex(expected->SerializeAsString()), Hex(c.bytes));
    std::unique_ptr<gp::Message> parsed(c.prototype.New());
    ASSERT_TRUE(parsed->ParseFromString(c.bytes));
    EXPECT_TRUE(gp::util::MessageDifferencer::Equals(*parsed, *expected)) << parsed->DebugString();
  }
}

// ---- configurator.cfg ------------------------------------------------------------

class ErrorLog : public gp::io::ErrorCollector {
 public:
  void AddError(int line, gp::io::ColumnNumber column, const std::string& message) override {
    text += std::to_string(line + 1) + ":" + std::to_string(column + 1) + ": " + message + "\n";
  }
  std::string text;
};

const char* const kSlots[] = {"attached0", "attached1", "lineout0", "bluetooth0", "combo0", "other"};

// The six slots, each with its file and a bitmask; `skip` is left out, and
// `dropBitmask` loses its bitmask.
std::string ConfigText(const std::string& skip = "", const std::string& dropBitmask = "") {
  std::string text = "# output slots\n";
  for (int i = 0; i < 6; ++i) {
    const std::string slot = kSlots[i];
    if (slot == skip) continue;
    text += slot + " {\n  filename: '" + slot + ".qvrcs'\n";
    if (slot != dropBitmask) {
      text += "  device_bitmask: " + (slot == "other" ? "0xffffffff" : std::to_string(2 << i)) + "\n";
    }
    text += "}\n";
  }
  return text;
}

bool Parse(const std::string& text, cfg::ConfiguratorConfig* config, ErrorLog* errors) {
  gp::TextFormat::Parser parser;
  parser.RecordErrorsTo(errors);
  return parser.ParseFromString(text, config);
}

TEST(SchemaConfigFile, CompleteFileFillsSixSlotsInFieldOrder) {
  cfg::ConfiguratorConfig config;
  ErrorLog errors;
  ASSERT_TRUE(Parse(ConfigText(), &config, &errors)) << errors.text;
  // The slot's field number, less one, is its cache block index.
  const gp::Descriptor* d = cfg::ConfiguratorConfig::descriptor();
  ASSERT_EQ(d->field_count(), 6);
  for (int i = 0; i < 6; ++i) {
    const gp::FieldDescriptor* f = d->field(i);
    EXPECT_EQ(f->number(), i + 1);
    EXPECT_EQ(f->name(), kSlots[i]);
    const auto& slot = static_cast<const cfg::SettingsSet&>(config.GetReflection()->GetMessage(config, f));
    EXPECT_EQ(slot.filename(), std::string(kSlots[i]) + ".qvrcs");
    EXPECT_EQ(slot.device_bitmask(), i < 5 ? 2u << i : 0xffffffffu) << "uint32: the top bit is data";
  }
}

TEST(SchemaConfigFile, IncompleteOrForeignFilesAreRejected) {
  cfg::ConfiguratorConfig binary;
  binary.mutable_attached0()->set_filename("a");
  const std::pair<std::string, std::string> cases[] = {
      {ConfigText("other"), "other"},  // every slot and field is required
      {ConfigText("", "combo0"), "combo0.device_bitmask"},
      {ConfigText() + "extra { filename: 'x' device_bitmask: 1 }\n", "extra"},
      {ConfigText("lineout0") + "lineout0 { filename: 'l' device_bitmask: -1 }\n", "Expected integer"},  // uint32
      {binary.SerializePartialAsString(), ""},  // the binary encoding in place of text
  };
  for (const auto& [text, named] : cases) {
    cfg::ConfiguratorConfig config;
    ErrorLog errors;
    EXPECT_FALSE(Parse(text, &config, &errors)) << text;
    EXPECT_NE(errors.text.find(named), std::string::npos) << errors.text;
  }
}

// ---- The schema set as a whole ------------------------------------------------------

TEST(SchemaDescriptors, EveryFileIsProto2ForSpeedInItsArea) {
  const std::vector<const gp::FileDescriptor*> files = SchemaFiles();
  // Every schema file on disk is compiled in and reachable from the two roots.
  std::set<std::string> onDisk, linked;
  for (const auto& entry : std::filesystem::directory_iterator(QVR_PROTO_DIR)) {
    if (entry.path().extension() == ".proto") onDisk.insert(entry.path().filename().string());
  }
  for (const gp::FileDescriptor* f : files) linked.insert(f->name());
  EXPECT_EQ(onDisk, linked);

  const std::set<std::string> areas = {"com.qvr.pb.wbn",    "com.qvr.pb.korva_v1_1", "com.qvr.pb.korva",
                                       "com.qvr.pb.tech",   "com.qvr.pb.coef",       "com.qvr.pb.model",
                                       "com.qvr.pb.common", "com.qvr.korva.configurator.qdsp6"};
  // The outer class names that the tuning tools' own builds rely on.
  const std::map<std::string, std::string> outer = {
      {"qvrcsPB.proto", "qvrcs"},     {"workspacePB.proto", "workspace"}, {"profilePB.proto", "profile"},
      {"korva_v1_1.proto", "Korva_v1_1"}, {"korva2.proto", "Korva"},     {"certification.proto", "Cert"}};
  for (const gp::FileDescriptor* f : files) {
    SCOPED_TRACE(f->name());
    EXPECT_EQ(f->syntax(), gp::FileDescriptor::SYNTAX_PROTO2);
    EXPECT_TRUE(areas.count(f->package()));
    EXPECT_TRUE(f->options().has_optimize_for());
    EXPECT_EQ(f->options().optimize_for(), gp::FileOptions::SPEED);
    const auto it = outer.find(f->name());
    EXPECT_EQ(f->options().java_outer_classname(), it == outer.end() ? "" : it->second);
    gp::FileOptions rest = f->options();
    rest.clear_optimize_for();
    rest.clear_java_outer_classname();
    EXPECT_EQ(rest.ByteSizeLong(), 0u) << rest.ShortDebugString();
    EXPECT_EQ(f->extension_count() + f->service_count(), 0);
    // A file imports each of its dependencies once; only profilePB re-exports one.
    std::set<const gp::FileDescriptor*> deps;
    for (int d = 0; d < f->dependency_count(); ++d) EXPECT_TRUE(deps.insert(f->dependency(d)).second);
    const bool reexports = f->name() == "profilePB.proto";
    ASSERT_EQ(f->public_dependency_count(), reexports ? 1 : 0);
    if (reexports) {
      EXPECT_EQ(f->public_dependency(0)->name(), "workspacePB.proto");
    }
  }
}

TEST(SchemaDescriptors, RecordsKeepTheFormatsPlainShape) {
  std::set<std::string> reachable;  // messages a tuning file can carry
  for (std::vector<const gp::Descriptor*> todo = {wbn::Qvrcs::descriptor()}; !todo.empty();) {
    const gp::Descriptor* d = todo.back();
    todo.pop_back();
    if (!reachable.insert(d->full_name()).second) continue;
    for (int i = 0; i < d->field_count(); ++i) {
      if (d->field(i)->message_type()) todo.push_back(d->field(i)->message_type());
    }
  }
  for (const gp::Descriptor* d : SchemaMessages()) {
    SCOPED_TRACE(d->full_name());
    EXPECT_EQ(d->oneof_decl_count() + d->extension_range_count() + d->nested_type_count() + d->enum_type_count() +
                  d->extension_count() + d->reserved_range_count(),
              0);
    EXPECT_EQ(d->options().ByteSizeLong(), 0u);
    const bool config = d->file()->package() == "com.qvr.korva.configurator.qdsp6";
    EXPECT_TRUE(config || reachable.count(d->full_name()));
    for (int i = 0; i < d->field_count(); ++i) {
      const gp::FieldDescriptor* f = d->field(i);
      SCOPED_TRACE(f->name());
      EXPECT_FALSE(f->has_json_name());
      EXPECT_EQ(f->is_required(), config);
      gp::FieldOptions rest = f->options();
      rest.clear_packed();
      EXPECT_EQ(rest.ByteSizeLong(), 0u);
      EXPECT_TRUE(!f->options().has_packed() || (f->is_packable() && f->options().packed()));
      // Settings and coefficients are zig-zag integers throughout; the only
      // plain int32 is the route flags word. The listening model's counts
      // are a case of their own.
      const auto type = f->type();
      const bool integer32 = type == gp::FieldDescriptor::TYPE_SINT32 || type == gp::FieldDescriptor::TYPE_INT32 ||
                             type == gp::FieldDescriptor::TYPE_UINT32 || type == gp::FieldDescriptor::TYPE_SFIXED32 ||
                             type == gp::FieldDescriptor::TYPE_FIXED32;
      if (integer32 && !config && d->file()->package() != "com.qvr.pb.model") {
        EXPECT_EQ(type, f->name() == "route_flags" ? gp::FieldDescriptor::TYPE_INT32
                                                   : gp::FieldDescriptor::TYPE_SINT32);
      }
      EXPECT_NE(type, gp::FieldDescriptor::TYPE_INT64);
      // Repeated numbers are packed sint32 or double lists, as the existing
      // tuning files have them; only the profile's hearing tests are one tag per value.
      if (f->is_repeated() && f->cpp_type() != gp::FieldDescriptor::CPPTYPE_STRING &&
          f->cpp_type() != gp::FieldDescriptor::CPPTYPE_MESSAGE) {
        EXPECT_TRUE(type == gp::FieldDescriptor::TYPE_SINT32 || type == gp::FieldDescriptor::TYPE_DOUBLE);
        EXPECT_EQ(f->is_packed(), d->full_name() != "com.qvr.pb.wbn.User");
      }
    }
  }
}

}  // namespace
