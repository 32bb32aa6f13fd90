// Tuning-file and configurator.cfg schemas: records encoded by hand from field
// numbers and wire types must parse into the intended values, our classes must
// write the same bytes back, and the schema set must hold together as a whole.
#include <gtest/gtest.h>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/unknown_field_set.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "audioroute.pb.h"
#include "coefs.pb.h"
#include "configurator.pb.h"
#include "korva2.pb.h"
#include "korva_v1_1.pb.h"
#include "listeningmodel.pb.h"
#include "peq2.pb.h"
#include "personalization.pb.h"
#include "qvrcsPB.pb.h"
#include "technologypb.pb.h"
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

// Bytes written literally, so that the encoder under test is not checked
// against itself.
std::string Bytes(std::initializer_list<unsigned> values) {
  std::string out;
  for (unsigned v : values) out.push_back(static_cast<char>(v));
  return out;
}

const std::string kMinusOneVarint = Bytes({0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01});

// Every schema file compiled into the program: the closure of the imports of
// the tuning-file container and of the configuration file.
std::vector<const gp::FileDescriptor*> SchemaFiles() {
  std::vector<const gp::FileDescriptor*> files = {wbn::Qvrcs::descriptor()->file(),
                                                  cfg::ConfiguratorConfig::descriptor()->file()};
  for (size_t i = 0; i < files.size(); ++i) {
    for (int d = 0; d < files[i]->dependency_count(); ++d) {
      const gp::FileDescriptor* dep = files[i]->dependency(d);
      if (std::find(files.begin(), files.end(), dep) == files.end()) files.push_back(dep);
    }
  }
  return files;
}

std::vector<const gp::Descriptor*> SchemaMessages() {
  std::vector<const gp::Descriptor*> messages;
  for (const gp::FileDescriptor* f : SchemaFiles())
    for (int m = 0; m < f->message_type_count(); ++m) messages.push_back(f->message_type(m));
  return messages;
}

// ---------------------------------------------------------------------------
// A tuning file built by hand along the path the reader follows:
// Qvrcs.workspace[0].routeConfiguration[0].tech[0].korva_v1_1.

struct TuningFile {
  std::string route_configuration;
  std::string file;
  size_t workspace_end = 0;  // the file's first record ends here
};

TuningFile BuildTuningFile() {
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

  std::string headphone;  // headphoneEq
  wire::LengthDelimitedField(headphone, 1, "hp-1");
  wire::VarintField(headphone, 4, 512);
  std::string supplemental;
  wire::PackedDoubleField(supplemental, 1, {-3.5});
  wire::LengthDelimitedField(headphone, 10, supplemental);

  std::string listening;  // listeningModel
  wire::LengthDelimitedField(listening, 2, "studio");
  wire::LengthDelimitedField(listening, 3, room);
  wire::LengthDelimitedField(listening, 4, headphone);
  wire::LengthDelimitedField(listening, 6, "model-uuid");

  std::string mox3d, gorm, velmo;
  wire::SInt32Field(mox3d, 9, -4);   // center_level
  wire::SInt32Field(gorm, 14, -7);   // bass_clarity_level
  wire::LengthDelimitedField(velmo, 1, mox3d);
  wire::LengthDelimitedField(velmo, 3, gorm);
  wire::SInt32Field(velmo, 10, 1);   // enable
  wire::SInt32Field(velmo, 20, 9);   // focus_level

  std::string locator, velmo_hpf;
  wire::LengthDelimitedField(locator, 2, "ROOM-a");
  wire::LengthDelimitedField(velmo_hpf, 1, "vhpf");
  wire::LengthDelimitedField(velmo_hpf, 4, table);

  std::string postmix;
  wire::SInt32Field(postmix, 1, -2);                      // output_device
  wire::PackedSInt32Field(postmix, 7, {-10, 20});          // zell_input_gain
  wire::SInt32Field(postmix, 10, 1);                       // dc_cut_enable
  wire::PackedSInt32Field(postmix, 11, {0, 1, 0});         // bypass_mode
  wire::SInt32Field(postmix, 13, -100);                    // bypass_gain
  wire::LengthDelimitedField(postmix, 14, velmo);
  wire::LengthDelimitedField(postmix, 23, listening);
  wire::LengthDelimitedField(postmix, 31, locator);        // multichRoom
  wire::LengthDelimitedField(postmix, 40, velmo_hpf);

  std::string dravo, enhance, premix;
  wire::SInt32Field(dravo, 6, -23);                        // lkfs_gain
  wire::PackedSInt32Field(enhance, 9, {-1, 5});            // htest
  wire::SInt32Field(enhance, 13, 1);                       // limiter
  wire::LengthDelimitedField(premix, 1, dravo);
  wire::LengthDelimitedField(premix, 2, enhance);
  wire::SInt32Field(premix, 4, -3);                        // stream_gain
  wire::SInt32Field(premix, 8, 2);                         // headroom_ratio

  std::string fader, settings;
  wire::SInt32Field(fader, 5, -1);                         // state
  wire::LengthDelimitedField(settings, 2, premix);
  wire::LengthDelimitedField(settings, 3, postmix);
  wire::LengthDelimitedField(settings, 5, fader);          // postmixFader
  wire::Int32Field(settings, 10, -1);                      // route_flags, int32

  std::string other_version;
  wire::LengthDelimitedField(other_version, 1, "2.00.00");

  std::string technology;
  wire::LengthDelimitedField(technology, 1, other_version);  // korva
  wire::LengthDelimitedField(technology, 2, settings);       // korva_v1_1

  TuningFile out;
  wire::VarintField(out.route_configuration, 1, 9);  // route AR_OUT_COMBO
  wire::LengthDelimitedField(out.route_configuration, 3, technology);

  std::string workspace;
  wire::VarintField(workspace, 1, 2);  // applyTo AT_CURRENT
  wire::LengthDelimitedField(workspace, 2, out.route_configuration);

  wire::LengthDelimitedField(out.file, 2, workspace);
  out.workspace_end = out.file.size();
  wire::LengthDelimitedField(out.file, 3, listening);  // Qvrcs.model
  return out;
}

TEST(SchemaWire, HandEncodedTuningFileReadsAlongTheReaderPath) {
  const TuningFile tf = BuildTuningFile();
  std::istringstream in(tf.file);
  wbn::Qvrcs qvrcs;
  ASSERT_TRUE(qvrcs.ParseFromIstream(&in));
  ASSERT_EQ(qvrcs.workspace_size(), 1);
  EXPECT_EQ(qvrcs.workspace(0).applyto(), wbn::AT_CURRENT);
  const wbn::RouteConfiguration& route = qvrcs.workspace(0).routeconfiguration(0);
  EXPECT_EQ(route.route(), wbn::AR_OUT_COMBO);
  const wbn::Technology& technology = route.tech(0);
  EXPECT_EQ(technology.korva().version(), "2.00.00");
  ASSERT_TRUE(technology.has_korva_v1_1());
  const v11::KorvaSettings& s = technology.korva_v1_1();
  EXPECT_EQ(s.route_flags(), -1);
  EXPECT_EQ(s.postmixfader().state(), -1);
  EXPECT_FALSE(s.has_premixfader());

  const v11::Premix& pre = s.premix();
  EXPECT_EQ(pre.dravo().lkfs_gain(), -23);
  EXPECT_FALSE(pre.dravo().has_enable());
  ASSERT_EQ(pre.enhance2().htest_size(), 2);
  EXPECT_EQ(pre.enhance2().htest(0), -1);
  EXPECT_EQ(pre.enhance2().htest(1), 5);
  EXPECT_EQ(pre.enhance2().limiter(), 1);
  EXPECT_EQ(pre.stream_gain(), -3);
  EXPECT_EQ(pre.headroom_ratio(), 2);

  const v11::Postmix& post = s.postmix();
  EXPECT_EQ(post.output_device(), -2);
  ASSERT_EQ(post.zell_input_gain_size(), 2);
  EXPECT_EQ(post.zell_input_gain(0), -10);
  EXPECT_EQ(post.dc_cut_enable(), 1);
  ASSERT_EQ(post.bypass_mode_size(), 3);
  EXPECT_EQ(post.bypass_mode(1), 1);
  EXPECT_EQ(post.bypass_gain(), -100);
  EXPECT_EQ(post.velmo().mox3d().center_level(), -4);
  EXPECT_FALSE(post.velmo().has_ombra());
  EXPECT_EQ(post.velmo().gorm().bass_clarity_level(), -7);
  EXPECT_EQ(post.velmo().enable(), 1);
  EXPECT_EQ(post.velmo().focus_level(), 9);
  ASSERT_EQ(post.multichroom_size(), 1);
  EXPECT_EQ(post.multichroom(0).uuid(), "ROOM-a");
  EXPECT_EQ(post.velmo_hpf_coef().uuid(), "vhpf");
  EXPECT_TRUE(post.GetReflection()->GetUnknownFields(post).empty());

  const model::listeningModel& lm = post.model();
  EXPECT_EQ(lm.uuid(), "model-uuid");
  EXPECT_EQ(lm.description(), "studio");
  const model::roomModel& room = lm.rooms(0);
  EXPECT_EQ(room.brirlength(), 4096u);
  EXPECT_EQ(room.reverbgain(), -6);
  EXPECT_TRUE(room.has_exttype());
  EXPECT_EQ(room.exttype(), model::URI);
  ASSERT_EQ(room.coefftables_size(), 1);
  const coef::CoefTable& table = room.coefftables(0);
  EXPECT_EQ(table.samplerate(), 48000);
  EXPECT_EQ(std::vector<int32_t>(table.coeff_32().begin(), table.coeff_32().end()),
            (std::vector<int32_t>{-1, 2, -3}));
  EXPECT_EQ(table.coeff_24_size(), 0);
  EXPECT_EQ(table.coeff_16(0), -32768);
  ASSERT_EQ(table.coeff_f_size(), 2);
  EXPECT_EQ(table.coeff_f(1), -0.25);
  EXPECT_EQ(lm.headphones(0).ihpirlength(), 512u);
  EXPECT_EQ(lm.headphones(0).supplementaldata().responsedb(0), -3.5);
  EXPECT_EQ(qvrcs.model(0).rooms(0).uuid(), "Room-A");
}

TEST(SchemaWire, DamagedTuningFilesAreRejectedWithoutHarm) {
  const TuningFile tf = BuildTuningFile();
  const std::string& file = tf.file;
  wbn::Qvrcs qvrcs;
  EXPECT_TRUE(qvrcs.ParseFromString(""));
  EXPECT_EQ(qvrcs.workspace_size() + qvrcs.profile_size() + qvrcs.model_size(), 0);
  // A cut anywhere but between the two outer records leaves a length or a
  // value that runs past the end.
  for (size_t cut = 1; cut < file.size(); ++cut)
    EXPECT_EQ(qvrcs.ParseFromString(file.substr(0, cut)), cut == tf.workspace_end) << "cut at " << cut;
  // Flipped bytes may or may not parse; either way nothing is read out of bounds.
  for (size_t i = 0; i < file.size(); ++i) {
    std::string damaged = file;
    damaged[i] = static_cast<char>(damaged[i] ^ 0xff);
    (void)qvrcs.ParseFromString(damaged);
  }
  std::istringstream garbage(std::string(64, '\xff'));
  EXPECT_FALSE(qvrcs.ParseFromIstream(&garbage));
}

TEST(SchemaWire, ProfileCarriesAccessoriesWithCompleteRouteSettings) {
  const TuningFile tf = BuildTuningFile();
  std::string chain, classification, spec, accessory, hardware_settings, profile, file;
  wire::LengthDelimitedField(chain, 1, "main");
  wire::LengthDelimitedField(chain, 2, "FL");
  wire::LengthDelimitedField(chain, 2, "FR");
  wire::LengthDelimitedField(chain, 3, tf.route_configuration);
  wire::LengthDelimitedField(classification, 2, chain);
  std::string geq, preset, presets;
  wire::SInt32Field(geq, 12, -5);  // band9_gain
  wire::LengthDelimitedField(preset, 5, geq);
  wire::LengthDelimitedField(presets, 2, preset);
  wire::LengthDelimitedField(spec, 3, classification);
  wire::LengthDelimitedField(spec, 4, presets);
  std::string cert;
  wire::SInt32Field(cert, 1, -2);
  wire::LengthDelimitedField(accessory, 5, cert);
  wire::LengthDelimitedField(accessory, 8, spec);
  wire::LengthDelimitedField(profile, 10, accessory);  // accessoryCollection
  wire::LengthDelimitedField(profile, 12, accessory);  // host
  std::string user, personalization;
  wire::SInt32Field(user, 2, -1);  // enh2HearingTest, one element per tag
  wire::SInt32Field(user, 2, 7);
  wire::VarintField(user, 5, 1);   // geqSwitch
  wire::LengthDelimitedField(personalization, 1, user);
  wire::LengthDelimitedField(personalization, 2, "");  // hardware, empty
  wire::LengthDelimitedField(profile, 8, personalization);
  wire::LengthDelimitedField(file, 1, profile);
  wire::LengthDelimitedField(file, 2, "");  // an empty workspace

  wbn::Qvrcs qvrcs;
  ASSERT_TRUE(qvrcs.ParseFromString(file));
  const wbn::Profile& p = qvrcs.profile(0);
  ASSERT_EQ(p.accessorycollection_size(), 1);
  ASSERT_EQ(p.host_size(), 1);
  const wbn::Spec& s = p.host(0).spec();
  EXPECT_EQ(p.host(0).certification().level(), -2);
  const wbn::OutputChain& oc = s.classification(0).supportedoutputchains(0);
  EXPECT_EQ(oc.channels_size(), 2);
  EXPECT_EQ(oc.route().tech(0).korva_v1_1().postmix().velmo().focus_level(), 9);
  EXPECT_EQ(s.presets().presetlist(0).geqsettings().band9_gain(), -5);
  const wbn::User& u = p.personalization().user();
  ASSERT_EQ(u.enh2hearingtest_size(), 2);
  EXPECT_EQ(u.enh2hearingtest(0), -1);
  EXPECT_TRUE(u.geqswitch());
  EXPECT_TRUE(p.personalization().has_hardware());
  EXPECT_EQ(qvrcs.workspace(0).applyto(), wbn::AT_DEFAULT);

  // An empty Hardware takes no bytes; set inside its parent it is a zero-length field.
  wbn::PersonalizationSettings ps;
  ps.mutable_hardware();
  EXPECT_EQ(wbn::Hardware().SerializeAsString(), "");
  EXPECT_EQ(Hex(ps.SerializeAsString()), Hex(Bytes({0x12, 0x00})));
}

// Each repeated number field, filled through reflection, must be written as
// the wire format of the existing tuning files has it: sint32 lists zig-zag
// encoded and doubles as fixed64, packed behind one tag and one length; only
// the profile's hearing-test lists are written one tag per value.
TEST(SchemaWire, RepeatedNumbersAreZigZagAndPackedByteForByte) {
  int packed = 0, unpacked = 0;
  for (const gp::Descriptor* d : SchemaMessages()) {
    const bool profile_side = d->full_name() == "com.qvr.pb.wbn.User";
    for (int i = 0; i < d->field_count(); ++i) {
      const gp::FieldDescriptor* f = d->field(i);
      if (!f->is_repeated() || f->cpp_type() == gp::FieldDescriptor::CPPTYPE_STRING ||
          f->cpp_type() == gp::FieldDescriptor::CPPTYPE_MESSAGE)
        continue;
      std::unique_ptr<gp::Message> m(
          gp::MessageFactory::generated_factory()->GetPrototype(d)->New());
      const gp::Reflection* r = m->GetReflection();
      std::string expected;
      const uint32_t n = static_cast<uint32_t>(f->number());
      if (f->cpp_type() == gp::FieldDescriptor::CPPTYPE_DOUBLE) {
        r->AddDouble(m.get(), f, -0.5);
        r->AddDouble(m.get(), f, 1e9);
        wire::PackedDoubleField(expected, n, {-0.5, 1e9});
      } else {
        ASSERT_EQ(f->cpp_type(), gp::FieldDescriptor::CPPTYPE_INT32) << f->full_name();
        r->AddInt32(m.get(), f, -1);
        r->AddInt32(m.get(), f, INT32_MIN);
        r->AddInt32(m.get(), f, 300);
        if (profile_side) {
          for (int32_t v : {-1, INT32_MIN, 300}) wire::SInt32Field(expected, n, v);
        } else {
          wire::PackedSInt32Field(expected, n, {-1, INT32_MIN, 300});
        }
      }
      (profile_side ? unpacked : packed)++;
      EXPECT_EQ(Hex(m->SerializeAsString()), Hex(expected)) << f->full_name();
      std::unique_ptr<gp::Message> back(m->New());
      ASSERT_TRUE(back->ParseFromString(expected)) << f->full_name();
      EXPECT_EQ(back->SerializeAsString(), expected) << f->full_name();
    }
  }
  EXPECT_GT(packed, 0);
  EXPECT_GT(unpacked, 0);

  // The zig-zag forms themselves, written out: -1 is the single byte 1.
  coef::CoefTable t;
  t.add_coeff_32(-1);
  t.add_coeff_24(1);
  t.set_samplerate(-64);
  EXPECT_EQ(Hex(t.SerializeAsString()), Hex(Bytes({0x08, 0x7f, 0x12, 0x01, 0x01, 0x1a, 0x01, 0x02})));
  v11::FaderInfo fader;
  ASSERT_TRUE(fader.ParseFromString(Bytes({0x08, 0x01, 0x10, 0xff, 0xff, 0xff, 0xff, 0x0f, 0x18, 0xfe,
                                           0xff, 0xff, 0xff, 0x0f})));
  EXPECT_EQ(fader.shadow(), -1);
  EXPECT_EQ(fader.out_length(), INT32_MIN);
  EXPECT_EQ(fader.hold_length(), INT32_MAX);
  // A packed list that arrives unpacked is still accepted (proto2 readers take both).
  std::string loose;
  wire::SInt32Field(loose, 9, -3);
  wire::SInt32Field(loose, 9, 4);
  tech::Enhance2 e;
  ASSERT_TRUE(e.ParseFromString(loose));
  ASSERT_EQ(e.htest_size(), 2);
  EXPECT_EQ(e.htest(0), -3);
}

TEST(SchemaWire, NegativeEnumsAndInt32TakeTenByteVarints) {
  const std::string band_null = Bytes({0x28}) + kMinusOneVarint;  // BandData.type = -1
  tech::BandData band;
  ASSERT_TRUE(band.ParseFromString(band_null));
  EXPECT_EQ(band.type(), tech::PEQ_BAND_TYPE_NULL);
  EXPECT_EQ(static_cast<int>(band.type()), -1);
  EXPECT_EQ(Hex(band.SerializeAsString()), Hex(band_null));

  tech::ChannelBands bands;
  *bands.add_band_data() = band;
  tech::BandData* second = bands.add_band_data();
  second->set_q(0.5f);
  second->set_gain(-1);
  std::string q_and_gain;
  wire::SInt32Field(q_and_gain, 3, -1);
  wire::AppendTag(q_and_gain, 4, wire::kFixed32);
  wire::AppendFloat(q_and_gain, 0.5f);
  std::string expected_bands;
  wire::LengthDelimitedField(expected_bands, 2, band_null);
  wire::LengthDelimitedField(expected_bands, 2, q_and_gain);
  EXPECT_EQ(Hex(bands.SerializeAsString()), Hex(expected_bands));

  model::roomModel room;
  room.set_exttype(model::NONE);
  EXPECT_EQ(Hex(room.SerializeAsString()), Hex(Bytes({0x48}) + kMinusOneVarint));
  room.set_exttype(model::URI);  // 0 is written only because it is set
  EXPECT_EQ(Hex(room.SerializeAsString()), Hex(Bytes({0x48, 0x00})));
  room.clear_exttype();
  EXPECT_EQ(room.SerializeAsString(), "");
  room.set_reverbgain(-1);  // int32, not zig-zag
  room.set_brirlength(0xffffffffu);
  EXPECT_EQ(Hex(room.SerializeAsString()),
            Hex(Bytes({0x20, 0xff, 0xff, 0xff, 0xff, 0x0f, 0x38}) + kMinusOneVarint));

  model::headphoneEq hp;
  ASSERT_TRUE(hp.ParseFromString(Bytes({0x28}) + kMinusOneVarint));
  EXPECT_TRUE(hp.has_exttype());
  EXPECT_EQ(hp.exttype(), model::NONE);

  for (const std::string& bytes : {Bytes({0x50}) + kMinusOneVarint}) {
    v11::KorvaSettings a;
    v2::KorvaSettings b;
    ASSERT_TRUE(a.ParseFromString(bytes));
    ASSERT_TRUE(b.ParseFromString(bytes));
    EXPECT_EQ(a.route_flags(), -1);
    EXPECT_EQ(b.route_flags(), -1);
  }

  // An enum number the schema does not know is kept aside, not stored.
  wbn::Workspace ws;
  ASSERT_TRUE(ws.ParseFromString(Bytes({0x08, 0x05})));
  EXPECT_FALSE(ws.has_applyto());
  EXPECT_EQ(ws.SerializeAsString(), Bytes({0x08, 0x05}));
}

TEST(SchemaWire, UnknownFieldNumbersAreKept) {
  std::string profile_bytes;
  wire::LengthDelimitedField(profile_bytes, 2, "3.00.00");
  wire::LengthDelimitedField(profile_bytes, 9, "skipped number");
  wire::LengthDelimitedField(profile_bytes, 13, "device");
  wbn::Profile profile;
  ASSERT_TRUE(profile.ParseFromString(profile_bytes));
  EXPECT_EQ(profile.version(), "3.00.00");
  EXPECT_EQ(profile.selecteddeviceuuid(), "device");
  const gp::UnknownFieldSet& unknown = profile.GetReflection()->GetUnknownFields(profile);
  ASSERT_EQ(unknown.field_count(), 1);
  EXPECT_EQ(unknown.field(0).number(), 9);
  EXPECT_EQ(unknown.field(0).length_delimited(), "skipped number");
  // Written back (after the known fields) and read again, it is still there.
  wbn::Profile again;
  ASSERT_TRUE(again.ParseFromString(profile.SerializeAsString()));
  EXPECT_EQ(again.ByteSizeLong(), profile_bytes.size());
  EXPECT_EQ(again.GetReflection()->GetUnknownFields(again).field(0).length_delimited(),
            "skipped number");

  std::string model_bytes;
  wire::VarintField(model_bytes, 1, 77);
  wire::LengthDelimitedField(model_bytes, 6, "m");
  model::listeningModel lm;
  ASSERT_TRUE(lm.ParseFromString(model_bytes));
  EXPECT_EQ(lm.uuid(), "m");
  const gp::UnknownFieldSet& lm_unknown = lm.GetReflection()->GetUnknownFields(lm);
  ASSERT_EQ(lm_unknown.field_count(), 1);
  EXPECT_EQ(lm_unknown.field(0).number(), 1);
  EXPECT_EQ(lm_unknown.field(0).varint(), 77u);
  EXPECT_EQ(lm.ByteSizeLong(), model_bytes.size());
}

// The second settings version renumbers Postmix from field 11 on; one byte
// string therefore means different things to the two versions.
TEST(SchemaWire, PostmixVersionsReadTheSameBytesDifferently) {
  std::string velmo_enable;
  wire::SInt32Field(velmo_enable, 10, 1);  // bytes 50 02
  std::string listening;
  wire::LengthDelimitedField(listening, 2, "room set");
  std::string bytes;
  wire::SInt32Field(bytes, 10, 5);                          // dc_cut_enable in both
  wire::LengthDelimitedField(bytes, 11, velmo_enable);
  wire::LengthDelimitedField(bytes, 14, velmo_enable);
  wire::LengthDelimitedField(bytes, 20, listening);
  wire::LengthDelimitedField(bytes, 23, listening);

  v11::Postmix a;
  ASSERT_TRUE(a.ParseFromString(bytes));
  EXPECT_EQ(a.dc_cut_enable(), 5);
  // 11: packed bypass_mode, the bytes 50 02 read as zig-zag 40 and 1.
  ASSERT_EQ(a.bypass_mode_size(), 2);
  EXPECT_EQ(a.bypass_mode(0), 40);
  EXPECT_EQ(a.bypass_mode(1), 1);
  EXPECT_EQ(a.velmo().enable(), 1);  // 14
  EXPECT_EQ(a.model().description(), "room set");  // 23
  // 20 is velmo_xover_coef: its field 2 (cutoff) is a varint, so the string
  // lands among the sub-record's unknown fields.
  EXPECT_TRUE(a.has_velmo_xover_coef());
  EXPECT_FALSE(a.velmo_xover_coef().has_cutoff());

  v2::Postmix b;
  ASSERT_TRUE(b.ParseFromString(bytes));
  EXPECT_EQ(b.dc_cut_enable(), 5);
  EXPECT_EQ(b.velmo().enable(), 1);  // 11
  ASSERT_EQ(b.enhance2().ref_htest_size(), 1);  // 14, field 10 of Enhance2
  EXPECT_EQ(b.enhance2().ref_htest(0), 1);
  EXPECT_EQ(b.model().description(), "room set");  // 20
  const gp::UnknownFieldSet& unknown = b.GetReflection()->GetUnknownFields(b);
  ASSERT_EQ(unknown.field_count(), 1);
  EXPECT_EQ(unknown.field(0).number(), 23);
}

// ---------------------------------------------------------------------------

TEST(SchemaDefaults, UnsetFieldsReadTheirDeclaredDefaults) {
  const v11::KorvaSettings s11;
  const v2::KorvaSettings s2;
  EXPECT_EQ(s11.version(), "1.01.00");
  EXPECT_EQ(s2.version(), "1.01.00");
  EXPECT_FALSE(s11.has_version());
  EXPECT_EQ(s11.route_flags(), 0);

  wbn::Profile profile;
  ASSERT_TRUE(profile.ParseFromString(""));
  EXPECT_EQ(profile.version(), "1.00.00");
  EXPECT_FALSE(profile.has_version());
  EXPECT_EQ(profile.signontoken().accounttype(), wbn::ACCOUNT_GOOGLE);

  const model::roomModel room;
  const model::headphoneEq hp;
  EXPECT_EQ(room.exttype(), model::NONE);
  EXPECT_EQ(hp.exttype(), model::NONE);
  EXPECT_EQ(static_cast<int>(room.exttype()), -1);
  EXPECT_FALSE(room.has_exttype());
  EXPECT_EQ(room.version(), "0.0.0.0");
  EXPECT_EQ(hp.version(), "0.0.0.0");
  EXPECT_EQ(room.channelmask(), 0u);
  // NONE is also the first value, so only the descriptor shows that the
  // default is declared, as the tuning tools' own descriptors have it.
  for (const gp::Descriptor* d : {model::roomModel::descriptor(), model::headphoneEq::descriptor()}) {
    const gp::FieldDescriptor* ext = d->FindFieldByName("extType");
    ASSERT_NE(ext, nullptr);
    EXPECT_TRUE(ext->has_default_value()) << d->name();
  }

  wbn::Workspace ws;
  EXPECT_EQ(ws.applyto(), wbn::AT_DEFAULT);
  ws.set_applyto(wbn::AT_CURRENT);
  ws.clear_applyto();
  EXPECT_EQ(ws.applyto(), wbn::AT_DEFAULT);

  const wbn::AudioRouteDescriptor desc;
  EXPECT_EQ(desc.over_ear(), "over-ear");
  EXPECT_EQ(desc.in_ear(), "in-ear");
  EXPECT_EQ(desc.external_speakers(), "external");
  EXPECT_EQ(desc.car(), "car");
  EXPECT_EQ(wbn::AudioRouteInfo().route(), wbn::AR_OUT_ATTACHED0);
  EXPECT_EQ(wbn::RouteConfiguration().route(), wbn::AR_OUT_ATTACHED0);
  EXPECT_EQ(tech::BandData().type(), tech::PEQ_BAND_TYPE_TRADITIONAL);

  // Defaults are never written: an untouched record takes no bytes.
  EXPECT_EQ(desc.SerializeAsString(), "");
  EXPECT_EQ(room.SerializeAsString(), "");
  EXPECT_EQ(s11.SerializeAsString(), "");
}

TEST(SchemaDefaults, AbsentRecordsReadAsDefaultInstances) {
  const v11::Postmix post;
  EXPECT_FALSE(post.has_velmo());
  EXPECT_EQ(&post.velmo(), &tech::Velmo::default_instance());
  EXPECT_FALSE(post.velmo().mox3d().has_enable());
  EXPECT_FALSE(post.velmo().ombra().has_enable());
  EXPECT_FALSE(post.velmo().gorm().has_bass_clarity_level());
  EXPECT_EQ(post.velmo().gorm().level(), 0);
  EXPECT_FALSE(post.has_model());
  EXPECT_EQ(post.model().rooms_size(), 0);
  EXPECT_EQ(post.bypass_mode_size(), 0);

  const wbn::Technology technology;
  EXPECT_EQ(&technology.korva_v1_1(), &v11::KorvaSettings::default_instance());
  EXPECT_FALSE(technology.korva_v1_1().has_postmix());
  EXPECT_EQ(technology.korva_v1_1().version(), "1.01.00");

  tech::Geq10b geq;
  geq.set_band3_gain(-12);
  tech::Geq10b parsed;
  ASSERT_TRUE(parsed.ParseFromString(geq.SerializeAsString()));
  EXPECT_EQ(parsed.band3_gain(), -12);
  EXPECT_FALSE(parsed.has_band4_gain());
  EXPECT_EQ(parsed.band4_gain(), 0);

  coef::CoefTable empty;
  ASSERT_TRUE(empty.ParseFromString(""));
  EXPECT_FALSE(empty.has_samplerate());
  EXPECT_EQ(empty.coeff_32_size() + empty.coeff_24_size() + empty.coeff_16_size() +
                empty.coeff_f_size(),
            0);
}

// ---------------------------------------------------------------------------
// "configurator.cfg": text format read from a file descriptor.

class ErrorLog : public gp::io::ErrorCollector {
 public:
  void AddError(int line, gp::io::ColumnNumber column, const std::string& message) override {
    text += std::to_string(line + 1) + ":" + std::to_string(column + 1) + ": " + message + "\n";
  }
  std::string text;
};

class SchemaConfigFile : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = ::testing::TempDir() + "schema_test_" + std::to_string(getpid()) + "_configurator.cfg";
  }
  void TearDown() override {
    std::remove(path_.c_str());
    EXPECT_FALSE(std::filesystem::exists(path_)) << path_;
  }

  bool Parse(const std::string& text, cfg::ConfiguratorConfig* out) {
    std::ofstream(path_, std::ios::binary | std::ios::trunc) << text;
    const int fd = open(path_.c_str(), O_RDONLY);
    EXPECT_GE(fd, 0);
    gp::io::FileInputStream input(fd);
    input.SetCloseOnDelete(true);
    gp::TextFormat::Parser parser;
    errors_.text.clear();
    parser.RecordErrorsTo(&errors_);
    return parser.Parse(&input, out);
  }

  std::string path_;
  ErrorLog errors_;
};

const char* const kSlots[] = {"attached0", "attached1", "lineout0", "bluetooth0", "combo0", "other"};

std::string ConfigText(const std::string& skip_slot, bool drop_bitmask_of_combo = false) {
  std::string text = "# output slots\n";
  unsigned bit = 1;
  for (const char* slot : kSlots) {
    bit <<= 1;
    if (skip_slot == slot) continue;
    text += std::string(slot) + " {\n  filename: '" + slot + ".qvrcs'\n";
    if (!(drop_bitmask_of_combo && std::string(slot) == "combo0"))
      text += "  device_bitmask: " + (std::string(slot) == "other" ? "0xffffffff" : std::to_string(bit)) + "\n";
    text += "}\n";
  }
  return text;
}

TEST_F(SchemaConfigFile, CompleteFileFillsSixSlotsInFieldOrder) {
  cfg::ConfiguratorConfig config;
  ASSERT_TRUE(Parse(ConfigText(""), &config))
      << errors_.text;
  // The slot's field number, less one, is its cache block index.
  const gp::Descriptor* d = cfg::ConfiguratorConfig::descriptor();
  const gp::Reflection* r = config.GetReflection();
  ASSERT_EQ(d->field_count(), 6);
  for (int i = 0; i < d->field_count(); ++i) {
    const gp::FieldDescriptor* f = d->field(i);
    EXPECT_EQ(f->number(), i + 1);
    EXPECT_EQ(f->name(), kSlots[i]);
    const auto& slot = static_cast<const cfg::SettingsSet&>(r->GetMessage(config, f));
    EXPECT_EQ(slot.filename(), std::string(kSlots[i]) + ".qvrcs");
    if (i < 5) { EXPECT_EQ(slot.device_bitmask(), 2u << i); }
  }
  EXPECT_EQ(config.other().device_bitmask(), 0xffffffffu);  // uint32: the top bit is data
}

TEST_F(SchemaConfigFile, IncompleteOrForeignFilesAreRejected) {
  cfg::ConfiguratorConfig config;
  EXPECT_FALSE(Parse(ConfigText("other"), &config));
  EXPECT_NE(errors_.text.find("other"), std::string::npos) << errors_.text;
  EXPECT_FALSE(Parse(ConfigText("attached0"), &config));
  EXPECT_FALSE(Parse(ConfigText("", true), &config));
  EXPECT_NE(errors_.text.find("combo0.device_bitmask"), std::string::npos) << errors_.text;
  EXPECT_FALSE(Parse(ConfigText("") + "extra { filename: 'x' device_bitmask: 1 }\n", &config));
  EXPECT_NE(errors_.text.find("extra"), std::string::npos) << errors_.text;
  EXPECT_FALSE(Parse(ConfigText("") + "lineout0 { device_bitmask: -1 }\n", &config));
  EXPECT_FALSE(Parse("", &config));
  // The binary encoding is not accepted in place of text.
  cfg::ConfiguratorConfig binary;
  binary.mutable_attached0()->set_filename("a");
  EXPECT_FALSE(Parse(binary.SerializePartialAsString(), &config));
}

// ---------------------------------------------------------------------------
// The schema set as a whole.

TEST(SchemaDescriptors, EveryFileIsProto2ForSpeedInItsArea) {
  const std::vector<const gp::FileDescriptor*> files = SchemaFiles();
  // Every schema file on disk is compiled in and reachable from the two roots.
  std::set<std::string> on_disk, linked;
  for (const auto& entry : std::filesystem::directory_iterator(QVR_PROTO_DIR))
    if (entry.path().extension() == ".proto") on_disk.insert(entry.path().filename().string());
  for (const gp::FileDescriptor* f : files) linked.insert(f->name());
  EXPECT_EQ(on_disk, linked);

  const std::set<std::string> areas = {"com.qvr.pb.wbn",  "com.qvr.pb.korva_v1_1", "com.qvr.pb.korva",
                                       "com.qvr.pb.tech", "com.qvr.pb.coef",       "com.qvr.pb.model",
                                       "com.qvr.pb.common", "com.qvr.korva.configurator.qdsp6"};
  // The outer class names that the tuning tools' own builds rely on.
  const std::map<std::string, std::string> outer = {
      {"qvrcsPB.proto", "qvrcs"},        {"workspacePB.proto", "workspace"},
      {"profilePB.proto", "profile"},    {"korva_v1_1.proto", "Korva_v1_1"},
      {"korva2.proto", "Korva"},         {"certification.proto", "Cert"}};
  for (const gp::FileDescriptor* f : files) {
    SCOPED_TRACE(f->name());
    EXPECT_EQ(f->syntax(), gp::FileDescriptor::SYNTAX_PROTO2);
    EXPECT_TRUE(areas.count(f->package()));
    EXPECT_TRUE(f->options().has_optimize_for());
    EXPECT_EQ(f->options().optimize_for(), gp::FileOptions::SPEED);
    const auto it = outer.find(f->name());
    EXPECT_EQ(f->options().has_java_outer_classname(), it != outer.end());
    if (it != outer.end()) { EXPECT_EQ(f->options().java_outer_classname(), it->second); }
    gp::FileOptions rest = f->options();
    rest.clear_optimize_for();
    rest.clear_java_outer_classname();
    EXPECT_EQ(rest.ByteSizeLong(), 0u) << rest.ShortDebugString();
    EXPECT_EQ(f->extension_count() + f->service_count(), 0);
    // A file imports each of its dependencies once, and only one import is public.
    std::set<const gp::FileDescriptor*> deps;
    for (int d = 0; d < f->dependency_count(); ++d) EXPECT_TRUE(deps.insert(f->dependency(d)).second);
    const bool reexports = f->name() == "profilePB.proto";
    ASSERT_EQ(f->public_dependency_count(), reexports ? 1 : 0);
    if (reexports) { EXPECT_EQ(f->public_dependency(0)->name(), "workspacePB.proto"); }
  }
}

// Builds a probe schema in a pool layered over the compiled one; it compiles
// only if `type` is visible through the single import `import`.
bool VisibleThrough(const std::string& import, const std::string& type) {
  gp::DescriptorPool pool(gp::DescriptorPool::generated_pool());
  gp::FileDescriptorProto probe;
  probe.set_name("probe_" + import);
  probe.set_package("probe");
  probe.add_dependency(import);
  gp::FieldDescriptorProto* field = probe.add_message_type()->add_field();
  probe.mutable_message_type(0)->set_name("Probe");
  field->set_name("f");
  field->set_number(1);
  field->set_label(gp::FieldDescriptorProto::LABEL_OPTIONAL);
  field->set_type_name(type);
  struct Quiet : gp::DescriptorPool::ErrorCollector {
    void AddError(const std::string&, const std::string&, const gp::Message*, ErrorLocation,
                  const std::string&) override {}
  } quiet;
  return pool.BuildFileCollectingErrors(probe, &quiet) != nullptr;
}

TEST(SchemaDescriptors, ProfileReexportsTheWorkspace) {
  EXPECT_TRUE(VisibleThrough("profilePB.proto", ".com.qvr.pb.wbn.Workspace"));
  EXPECT_TRUE(VisibleThrough("profilePB.proto", ".com.qvr.pb.wbn.ApplyTo"));
  EXPECT_TRUE(VisibleThrough("profilePB.proto", ".com.qvr.pb.wbn.Profile"));
  // Plain imports are not passed on: the controls that make the check mean something.
  EXPECT_FALSE(VisibleThrough("profilePB.proto", ".com.qvr.pb.wbn.RouteConfiguration"));
  EXPECT_FALSE(VisibleThrough("qvrcsPB.proto", ".com.qvr.pb.wbn.Workspace"));
}

TEST(SchemaDescriptors, RecordsKeepTheFormatsPlainShape) {
  std::set<std::string> reachable;  // messages a tuning file can carry
  std::vector<const gp::Descriptor*> todo = {wbn::Qvrcs::descriptor()};
  while (!todo.empty()) {
    const gp::Descriptor* d = todo.back();
    todo.pop_back();
    if (!reachable.insert(d->full_name()).second) continue;
    for (int i = 0; i < d->field_count(); ++i)
      if (d->field(i)->message_type()) todo.push_back(d->field(i)->message_type());
  }

  for (const gp::Descriptor* d : SchemaMessages()) {
    SCOPED_TRACE(d->full_name());
    EXPECT_EQ(d->oneof_decl_count() + d->extension_range_count() + d->nested_type_count() +
                  d->enum_type_count() + d->extension_count() + d->reserved_range_count(),
              0);
    EXPECT_EQ(d->options().ByteSizeLong(), 0u);
    const bool config = d->file()->package() == "com.qvr.korva.configurator.qdsp6";
    if (!config) { EXPECT_TRUE(reachable.count(d->full_name())); }
    for (int i = 0; i < d->field_count(); ++i) {
      const gp::FieldDescriptor* f = d->field(i);
      SCOPED_TRACE(f->name());
      EXPECT_FALSE(f->has_json_name());
      EXPECT_EQ(f->is_required(), config);
      gp::FieldOptions rest = f->options();
      rest.clear_packed();
      EXPECT_EQ(rest.ByteSizeLong(), 0u);
      if (f->options().has_packed()) { EXPECT_TRUE(f->is_packable() && f->options().packed()); }
      // Settings and coefficients are zig-zag integers throughout; the only
      // plain int32 is the route flags word. The listening model's counts
      // are a case of their own.
      const bool integer32 = f->type() == gp::FieldDescriptor::TYPE_SINT32 ||
                             f->type() == gp::FieldDescriptor::TYPE_INT32 ||
                             f->type() == gp::FieldDescriptor::TYPE_UINT32 ||
                             f->type() == gp::FieldDescriptor::TYPE_SFIXED32 ||
                             f->type() == gp::FieldDescriptor::TYPE_FIXED32;
      if (integer32 && !config && d->file()->package() != "com.qvr.pb.model") {
        if (f->name() == "route_flags") {
          EXPECT_EQ(f->type(), gp::FieldDescriptor::TYPE_INT32);
        } else {
          EXPECT_EQ(f->type(), gp::FieldDescriptor::TYPE_SINT32);
        }
      }
      EXPECT_NE(f->type(), gp::FieldDescriptor::TYPE_INT64);
    }
  }
}

// Compares one record of the second settings version with its version 1.1
// counterpart: every field of the second version must exist in version 1.1
// under the same name, in the same relative order, with the same label, type,
// packing and default, its message type taken from the matching package, and
// the number that `renumber` maps it to. Returns the fields only version 1.1 has.
template <typename Renumber>
std::map<std::string, int> CompareVersions(const gp::Descriptor* a11, const gp::Descriptor* b2,
                                           Renumber renumber) {
  SCOPED_TRACE(b2->name());
  EXPECT_EQ(a11->file()->package() + "." + a11->name(), a11->full_name());
  int last_index = -1;
  std::map<std::string, int> only_v11;
  for (int i = 0; i < a11->field_count(); ++i)
    only_v11[a11->field(i)->name()] = a11->field(i)->number();
  for (int i = 0; i < b2->field_count(); ++i) {
    const gp::FieldDescriptor* b = b2->field(i);
    const gp::FieldDescriptor* a = a11->FindFieldByName(b->name());
    SCOPED_TRACE(b->name());
    if (a == nullptr) {
      ADD_FAILURE() << "missing in version 1.1";
      continue;
    }
    only_v11.erase(a->name());
    EXPECT_GT(a->index(), last_index);
    last_index = a->index();
    EXPECT_EQ(a->number(), renumber(b->number()));
    EXPECT_EQ(a->label(), b->label());
    EXPECT_EQ(a->type(), b->type());
    EXPECT_EQ(a->is_packed(), b->is_packed());
    EXPECT_EQ(a->has_default_value(), b->has_default_value());
    if (a->cpp_type() == gp::FieldDescriptor::CPPTYPE_STRING) {
      EXPECT_EQ(a->default_value_string(), b->default_value_string());
    }
    if (b->message_type()) {
      const bool own = b->message_type()->file() == b2->file();
      EXPECT_EQ(a->message_type()->file() == a11->file(), own);
      if (own) {
        EXPECT_EQ(a->message_type()->name(), b->message_type()->name());
      } else {
        EXPECT_EQ(a->message_type(), b->message_type());
      }
    }
    EXPECT_EQ(a->enum_type(), b->enum_type());
  }
  return only_v11;
}

TEST(SchemaDescriptors, SettingsVersionsDifferOnlyWhereIntended) {
  const auto same = [](int n) { return n; };
  using Extra = std::map<std::string, int>;
  EXPECT_EQ(CompareVersions(v11::FaderInfo::descriptor(), v2::FaderInfo::descriptor(), same), Extra{});
  EXPECT_EQ(CompareVersions(v11::KorvaSettings::descriptor(), v2::KorvaSettings::descriptor(), same),
            Extra{});
  const Extra premix_extra =
      CompareVersions(v11::Premix::descriptor(), v2::Premix::descriptor(), same);
  EXPECT_EQ(premix_extra, (Extra{{"bypass_mode", 5},
                                 {"stream_gain_downstream", 6},
                                 {"headroom_limit", 7},
                                 {"headroom_ratio", 8}}));
  // Postmix: the sub-records 11 to 20 of the second version moved up by three in
  // version 1.1 to make room for its three additions at 11 to 13.
  const Extra postmix_extra = CompareVersions(v11::Postmix::descriptor(), v2::Postmix::descriptor(),
                                              [](int n) { return n >= 11 && n <= 20 ? n + 3 : n; });
  EXPECT_EQ(postmix_extra, (Extra{{"bypass_mode", 11}, {"limiter_master_vol", 12}, {"bypass_gain", 13}}));

  const gp::EnumDescriptor* m11 = v11::KorvaModeOrder_descriptor();
  const gp::EnumDescriptor* m2 = v2::KorvaModeOrder_descriptor();
  ASSERT_EQ(m11->value_count(), m2->value_count());
  for (int i = 0; i < m11->value_count(); ++i) {
    EXPECT_EQ(m11->value(i)->name(), m2->value(i)->name());
    EXPECT_EQ(m11->value(i)->number(), m2->value(i)->number());
  }

  // Same declarations and the same imports, the last two in swapped order.
  const gp::FileDescriptor* f11 = v11::KorvaSettings::descriptor()->file();
  const gp::FileDescriptor* f2 = v2::KorvaSettings::descriptor()->file();
  ASSERT_EQ(f11->message_type_count(), f2->message_type_count());
  for (int i = 0; i < f11->message_type_count(); ++i)
    EXPECT_EQ(f11->message_type(i)->name(), f2->message_type(i)->name());
  ASSERT_EQ(f11->dependency_count(), f2->dependency_count());
  const int n = f11->dependency_count();
  ASSERT_GE(n, 2);
  for (int i = 0; i < n - 2; ++i) EXPECT_EQ(f11->dependency(i), f2->dependency(i));
  EXPECT_EQ(f11->dependency(n - 2), f2->dependency(n - 1));
  EXPECT_EQ(f11->dependency(n - 1), f2->dependency(n - 2));
}

}  // namespace
