// The generated example tuning set: configurator.cfg parses, every tuning file
// it names (and max.bin) goes through the tuning file reader with both
// conversions succeeding, and the headphone examples really load their rooms,
// headphone equalisers and AEQ filter banks instead of leaving the template.
#include <fcntl.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "configurator.pb.h"
#include "configurator/payload.h"
#include "configurator/tuning_reader.h"
#include "qvrcs/layout.h"
#include "qvrcs/qvrcs.h"
#include "qvrcs/templates.h"
#include "qvrcsPB.pb.h"

namespace {

using com::qvr::korva::configurator::qdsp6::ConfiguratorConfig;
using com::qvr::pb::coef::CoefTable;
using com::qvr::pb::korva_v1_1::KorvaSettings;
using com::qvr::pb::korva_v1_1::Postmix;
using com::qvr::pb::wbn::Qvrcs;
using qvrcs::kPostmixBlockSize;

constexpr uint32_t kRate = 48000;
constexpr uint8_t kMarker = 0xA5;

std::string ExamplePath(const std::string& name) { return std::string(QVR_EXAMPLES_DIR) + "/" + name; }

// configurator.cfg read the way the configurator reads it: text format over a
// file descriptor, unknown fields and missing required fields rejected.
bool LoadConfig(ConfiguratorConfig& config) {
  const int fd = open(ExamplePath("configurator.cfg").c_str(), O_RDONLY);
  if (fd < 0) return false;
  google::protobuf::io::FileInputStream stream(fd);
  const bool ok = google::protobuf::TextFormat::Parse(&stream, &config);
  close(fd);
  return ok;
}

bool LoadTuning(const std::string& name, Qvrcs& tuning) {
  std::ifstream in(ExamplePath(name), std::ios::binary);
  return in && tuning.ParseFromIstream(&in);
}

// The settings the reader converts: first workspace, route and technology.
const KorvaSettings& Settings(const Qvrcs& tuning) {
  return tuning.workspace(0).routeconfiguration(0).tech(0).korva_v1_1();
}

int32_t Word(const qvrcs::PostmixBlock& block, size_t offset) {
  return qvrcs::LoadI32(block.data(), block.size(), offset);
}

bool SameAsTemplate(const qvrcs::PostmixBlock& block, size_t offset, size_t size) {
  return std::memcmp(block.data() + offset, kPostmixTemplate.data() + offset, size) == 0;
}

// Converted blocks of one example, through the converters directly.
struct Converted {
  qvrcs::PremixBlock premix{};
  qvrcs::PostmixBlock postmix{};
  int32_t premixResult = -1;
  int32_t postmixResult = -1;
};

std::unique_ptr<Converted> Convert(const KorvaSettings& settings) {
  auto out = std::make_unique<Converted>();
  ConversionContext context;
  QVRCS_InitContext(context, kRate);
  const ListeningModelList noModels;
  out->premixResult = QVRCS_ConvertPremix(context, settings, out->premix, true);
  out->postmixResult = QVRCS_ConvertPostmix(context, settings, out->postmix, true, noModels);
  return out;
}

const CoefTable* TableAt(const google::protobuf::RepeatedPtrField<CoefTable>& tables) {
  return QVRCS_FindCoefTable(tables, kRate);
}

std::vector<std::string> SlotFiles() {
  ConfiguratorConfig config;
  if (!LoadConfig(config)) return {};
  return {config.attached0().filename(), config.attached1().filename(),
          config.lineout0().filename(),  config.bluetooth0().filename(),
          config.combo0().filename(),    config.other().filename()};
}

// ---- configurator.cfg --------------------------------------------------------

TEST(ExampleConfig, NamesSixDistinctTuningFilesThatExist) {
  ConfiguratorConfig config;
  ASSERT_TRUE(LoadConfig(config));
  const std::vector<std::string> files = SlotFiles();
  ASSERT_EQ(files.size(), 6u);
  EXPECT_EQ(std::set<std::string>(files.begin(), files.end()).size(), 6u);
  for (const std::string& file : files) {
    EXPECT_TRUE(std::ifstream(ExamplePath(file)).good()) << file;
  }
  for (const auto* slot : {&config.attached0(), &config.attached1(), &config.lineout0(),
                           &config.bluetooth0(), &config.combo0(), &config.other()}) {
    EXPECT_NE(slot->device_bitmask(), 0u) << slot->filename();
  }
}

// ---- Every tuning file through the reader -----------------------------------

class ExampleFile : public testing::TestWithParam<std::string> {};

TEST_P(ExampleFile, ParsesConvertsAndFillsThePayload) {
  Qvrcs tuning;
  // The reader reports an unparsable file as success without writing anything,
  // so parsing is checked on its own first.
  ASSERT_TRUE(LoadTuning(GetParam(), tuning));
  ASSERT_GT(tuning.workspace_size(), 0);
  ASSERT_GT(tuning.workspace(0).routeconfiguration_size(), 0);
  ASSERT_GT(tuning.workspace(0).routeconfiguration(0).tech_size(), 0);
  ASSERT_TRUE(tuning.workspace(0).routeconfiguration(0).tech(0).has_korva_v1_1());

  const auto converted = Convert(Settings(tuning));
  EXPECT_EQ(converted->premixResult, 0);
  EXPECT_EQ(converted->postmixResult, 0);

  std::vector<uint8_t> payload(qvr::kCacheBlockSize, kMarker);
  ASSERT_EQ(QVRCS_GetPremixData(ExamplePath(GetParam()).c_str(), payload.data()), 0);
  EXPECT_EQ(std::memcmp(payload.data() + qvr::kPremixPayloadOffset, converted->premix.data(),
                        converted->premix.size()),
            0);
  EXPECT_EQ(std::memcmp(payload.data() + qvr::kPostmixPayloadOffset, converted->postmix.data(),
                        converted->postmix.size()),
            0);
  // The fade areas are not the reader's to write.
  for (size_t at : {qvr::kPremixFadeOffset, qvr::kPostmixFadeOffset}) {
    EXPECT_TRUE(std::all_of(payload.begin() + at, payload.begin() + at + qvr::kFadeAreaSize,
                            [](uint8_t b) { return b == kMarker; }));
  }
}

std::vector<std::string> AllExampleFiles() {
  std::vector<std::string> files = SlotFiles();
  files.push_back("max.bin");
  return files;
}

std::string TestName(const testing::TestParamInfo<std::string>& info) {
  std::string name = info.param.substr(0, info.param.find('.'));
  std::replace_if(name.begin(), name.end(), [](char c) { return !isalnum(c); }, '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(Examples, ExampleFile, testing::ValuesIn(AllExampleFiles()), TestName);

// ---- The headphone examples exercise rooms, headphone EQ and AEQ ------------

struct RoomSlot {
  const char* name;
  const google::protobuf::RepeatedPtrField<com::qvr::pb::wbn::ResourceLocator>& (Postmix::*list)()
      const;
  size_t offset;
  size_t capacity;
};

const RoomSlot kRoomSlots[] = {
    {"multichannel", &Postmix::multichroom, qvrcs::kMultichRoomSlot, qvrcs::kMultichRoomCapacity},
    {"front", &Postmix::frontroom, qvrcs::kFrontRoomSlot, qvrcs::kFrontRoomCapacity},
    {"wide", &Postmix::wideroom, qvrcs::kWideRoomSlot, qvrcs::kWideRoomCapacity},
};

bool NamesSomething(const google::protobuf::RepeatedPtrField<com::qvr::pb::wbn::ResourceLocator>& list) {
  return std::any_of(list.begin(), list.end(), [](const auto& l) { return !l.uuid().empty(); });
}

// Every section that the example's locators name ends up loaded: a room record
// carries a 48 kHz table (the files also hold 44.1 and 96 kHz ones), the
// headphone EQ record likewise, and the AEQ record is no longer the template's
// pass-through filter.
void ExpectNamedSectionsLoaded(const std::string& file, std::set<std::string> expected) {
  SCOPED_TRACE(file);
  Qvrcs tuning;
  ASSERT_TRUE(LoadTuning(file, tuning));
  const Postmix& postmix = Settings(tuning).postmix();
  const auto converted = Convert(Settings(tuning));
  ASSERT_EQ(converted->postmixResult, 0);
  const qvrcs::PostmixBlock& block = converted->postmix;

  std::set<std::string> loaded;
  for (const RoomSlot& slot : kRoomSlots) {
    if (!NamesSomething((postmix.*slot.list)())) continue;
    EXPECT_FALSE(SameAsTemplate(block, slot.offset, slot.capacity)) << slot.name;
    EXPECT_EQ(Word(block, slot.offset + 28), static_cast<int32_t>(kRate)) << slot.name;
    loaded.insert(slot.name);
  }
  if (NamesSomething(postmix.hpeqcoef())) {
    EXPECT_FALSE(SameAsTemplate(block, qvrcs::kHeadphoneEqSlot, qvrcs::kHeadphoneEqCapacity));
    EXPECT_EQ(Word(block, qvrcs::kHeadphoneEqSlot + 16), static_cast<int32_t>(kRate));
    loaded.insert("hpeq");
  }
  if (NamesSomething(postmix.aeqcoef())) {
    const size_t channel1 = qvrcs::kAeqRecord + 4 * qvrcs::kAeqChannelWords;
    EXPECT_FALSE(SameAsTemplate(block, qvrcs::kAeqRecord + 8, 4 * qvrcs::kAeqChannelWords - 8));
    EXPECT_FALSE(SameAsTemplate(block, channel1 + 8, 4 * qvrcs::kAeqChannelWords - 8));
    loaded.insert("aeq");
  }
  EXPECT_EQ(loaded, expected);
}

TEST(ExampleTuning, LoadsEveryRoomHeadphoneEqAndAeqItNames) {
  ExpectNamedSectionsLoaded("headphones.bin", {"multichannel", "front", "wide", "hpeq", "aeq"});
  ExpectNamedSectionsLoaded("usb_headset.bin", {"multichannel", "front", "hpeq", "aeq"});
  ExpectNamedSectionsLoaded("bluetooth.bin", {"front", "hpeq", "aeq"});
  ExpectNamedSectionsLoaded("combo.bin", {"wide", "aeq"});
}

TEST(ExampleHeadphones, ShortAndLongHeadphoneEqForms) {
  // headphones.bin: 128 taps per ear, written whole with its own length.
  Qvrcs shortForm;
  ASSERT_TRUE(LoadTuning("headphones.bin", shortForm));
  const auto& shortEq = Settings(shortForm).postmix().model().headphones(0);
  ASSERT_LE(shortEq.ihpirlength(), 128u);
  EXPECT_EQ(Word(Convert(Settings(shortForm))->postmix, qvrcs::kHeadphoneEqSlot + 20),
            static_cast<int32_t>(shortEq.ihpirlength()));

  // usb_headset.bin: 256 taps per ear, cut to 128; the right ear's first tap
  // (table index 2 + 256) follows the left ear's 128th (table index 129).
  Qvrcs longForm;
  ASSERT_TRUE(LoadTuning("usb_headset.bin", longForm));
  const auto& longEq = Settings(longForm).postmix().model().headphones(0);
  ASSERT_GT(longEq.ihpirlength(), 128u);
  const CoefTable* table = TableAt(longEq.coefftables());
  ASSERT_NE(table, nullptr);
  ASSERT_EQ(table->coeff_16_size(), 2 + 2 * static_cast<int>(longEq.ihpirlength()));
  const auto converted = Convert(Settings(longForm));
  const uint8_t* record = converted->postmix.data() + qvrcs::kHeadphoneEqSlot;
  EXPECT_EQ(Word(converted->postmix, qvrcs::kHeadphoneEqSlot + 20), 128);
  const auto tap = [&](size_t index) {
    return qvrcs::LoadI16(record, qvrcs::kHeadphoneEqCapacity, 24 + 2 * index);
  };
  EXPECT_EQ(tap(129), static_cast<int16_t>(table->coeff_16(129)));
  EXPECT_EQ(tap(130), static_cast<int16_t>(table->coeff_16(2 + longEq.ihpirlength())));
}

TEST(ExampleHeadphones, ThreeBankAeqDropsTheBankWithoutA48kHzTable) {
  Qvrcs tuning;
  ASSERT_TRUE(LoadTuning("usb_headset.bin", tuning));
  const auto& aeq = Settings(tuning).postmix().model().aeqs(0);
  ASSERT_EQ(aeq.coefficient_table_size(), 3);
  ASSERT_EQ(TableAt(aeq.coefficient_table(0).iircoefs()), nullptr);
  const CoefTable* left = TableAt(aeq.coefficient_table(1).iircoefs());
  const CoefTable* right = TableAt(aeq.coefficient_table(2).iircoefs());
  ASSERT_NE(left, nullptr);
  ASSERT_NE(right, nullptr);

  const auto converted = Convert(Settings(tuning));
  const size_t channel1 = qvrcs::kAeqRecord + 4 * qvrcs::kAeqChannelWords;
  for (int i = 0; i < left->coeff_32_size(); ++i) {
    ASSERT_EQ(Word(converted->postmix, qvrcs::kAeqRecord + 8 + 4 * i), left->coeff_32(i)) << i;
  }
  for (int i = 0; i < right->coeff_32_size(); ++i) {
    ASSERT_EQ(Word(converted->postmix, channel1 + 8 + 4 * i), right->coeff_32(i)) << i;
  }
}

// ---- max.bin fills every coefficient area -------------------------------------

TEST(ExampleMax, Every48kHzTableFillsItsArea) {
  Qvrcs tuning;
  ASSERT_TRUE(LoadTuning("max.bin", tuning));
  const Postmix& postmix = Settings(tuning).postmix();
  const auto& model = postmix.model();
  ASSERT_EQ(model.rooms_size(), 3);
  for (int i = 0; i < 3; ++i) {
    const CoefTable* table = TableAt(model.rooms(i).coefftables());
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(40 + 2 * static_cast<size_t>(table->coeff_16_size()), kRoomSlots[i].capacity)
        << kRoomSlots[i].name;
    EXPECT_EQ(model.rooms(i).uuid(), (postmix.*kRoomSlots[i].list)().Get(0).uuid());
  }
  const auto& hpeq = model.headphones(0);
  EXPECT_GT(hpeq.ihpirlength(), 128u);
  // Long form: each ear's half of the table holds at least the taps per ear
  // that the slot keeps (its half-words less 14 of header, split in two).
  const int tapsPerEar = (static_cast<int>(qvrcs::kHeadphoneEqCapacity) / 2 - 14) / 2;
  EXPECT_GE((TableAt(hpeq.coefftables())->coeff_16_size() - 2) / 2, tapsPerEar);
  for (const auto& bank : model.aeqs(0).coefficient_table()) {
    EXPECT_EQ(TableAt(bank.iircoefs())->coeff_32_size(),
              static_cast<int>(qvrcs::kAeqChannelWords - 2));
  }
  EXPECT_EQ(TableAt(postmix.hpf_coef().coeffs())->coeff_32_size(),
            static_cast<int>(qvrcs::kHpfMaxCoefs));
  EXPECT_EQ(TableAt(postmix.velmo_hpf_coef().hpf_coeffs())->coeff_16_size(),
            static_cast<int>(qvrcs::kVelmoHpfMaxCoefs));
  EXPECT_EQ(TableAt(postmix.velmo_xover_coef().lpf_coeffs())->coeff_16_size(),
            static_cast<int>(qvrcs::kVelmoXoverCoefs));
  EXPECT_EQ(TableAt(postmix.velmo_xover_coef().hpf_coeffs())->coeff_16_size(),
            static_cast<int>(qvrcs::kVelmoXoverCoefs));
  EXPECT_EQ(TableAt(postmix.gorm_coef().coeffs())->coeff_32_size(),
            static_cast<int>(qvrcs::kGormMaxCoefs));

  // The last value of the multichannel room lands in the slot's last bytes.
  const auto converted = Convert(Settings(tuning));
  ASSERT_EQ(converted->postmixResult, 0);
  const CoefTable* multich = TableAt(model.rooms(0).coefftables());
  EXPECT_EQ(qvrcs::LoadI16(converted->postmix.data(), kPostmixBlockSize,
                           qvrcs::kFrontRoomSlot - 2),
            static_cast<int16_t>(multich->coeff_16(multich->coeff_16_size() - 1)));
}

}  // namespace
