// Tuning-file schemas: records encoded by hand from field numbers and wire
// types must read as their text form says and be written back byte for byte;
// and no field of the whole schema changes its wire type. (configurator.cfg's
// text form is read by the configurator's own reader: qvrcs_tool_test.)
#include <gtest/gtest.h>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/message_differencer.h>

#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "audioroute.pb.h"
#include "coefs.pb.h"
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
      {model::headphoneEq::default_instance(), Bytes({0x28}) + kMinusOneVarint, "extType: NONE"},
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

// ---- The schema as a whole --------------------------------------------------------

// Tuning files come from other tools: they read the same here only while no
// field is required and no integer changes its wire type. Settings and
// coefficients are zig-zag integers throughout; the only plain int32 is the
// route flags word. The listening model's counts are a case of their own.
TEST(SchemaDescriptors, NoFieldChangesItsWireType) {
  std::set<const gp::Descriptor*> seen;
  for (std::vector<const gp::Descriptor*> todo = {wbn::Qvrcs::descriptor()}; !todo.empty();) {
    const gp::Descriptor* d = todo.back();
    todo.pop_back();
    if (!seen.insert(d).second) continue;
    for (int i = 0; i < d->field_count(); ++i) {
      const gp::FieldDescriptor* f = d->field(i);
      SCOPED_TRACE(d->full_name() + "." + f->name());
      if (f->message_type()) todo.push_back(f->message_type());
      EXPECT_FALSE(f->is_required());
      const auto cpp = f->cpp_type();
      EXPECT_TRUE(cpp != gp::FieldDescriptor::CPPTYPE_INT64 && cpp != gp::FieldDescriptor::CPPTYPE_UINT64);
      if ((cpp == gp::FieldDescriptor::CPPTYPE_INT32 || cpp == gp::FieldDescriptor::CPPTYPE_UINT32) &&
          d->file()->package() != "com.qvr.pb.model") {
        EXPECT_EQ(f->type(),
                  f->name() == "route_flags" ? gp::FieldDescriptor::TYPE_INT32 : gp::FieldDescriptor::TYPE_SINT32);
      }
    }
  }
}

}  // namespace
