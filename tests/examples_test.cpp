// The generated example tuning set: configurator.cfg names six distinct files,
// and the examples really load their rooms, headphone equalisers and AEQ
// filter banks instead of leaving the template; max.bin fills every
// coefficient area. (That every slot's file loads without a warning is the
// qvrcs tool test's check of the example set.)
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <set>
#include <string>

#include "configurator.pb.h"
#include "configurator/tuning_reader.h"
#include "qvrcs/layout.h"
#include "qvrcs/qvrcs.h"
#include "qvrcs/record_layout.h"
#include "qvrcs/templates.h"
#include "test_support.h"

namespace {

using com::qvr::pb::coef::CoefTable;
using com::qvr::pb::korva_v1_1::KorvaSettings;
using com::qvr::pb::korva_v1_1::Postmix;
using com::qvr::pb::wbn::ResourceLocator;
using Locators = google::protobuf::RepeatedPtrField<ResourceLocator>;

constexpr uint32_t kRate = 48000;

std::string ExamplePath(const std::string& name) { return std::string(QVR_EXAMPLES_DIR) + "/" + name; }

// An example file, parsed, with its selected settings converted.
struct Example {
  com::qvr::pb::wbn::Qvrcs tuning;
  qvrcs::PremixBlock premix{};
  qvrcs::PostmixBlock postmix{};

  const KorvaSettings& Settings() const { return tuning.workspace(0).routeconfiguration(0).tech(0).korva_v1_1(); }
  int32_t Word(size_t offset) const { return qvrcs::LoadI32(postmix.data(), postmix.size(), offset); }
  bool AsTemplate(size_t offset, size_t size) const {
    return std::memcmp(postmix.data() + offset, kPostmixTemplate.data() + offset, size) == 0;
  }
};

std::unique_ptr<Example> Load(const std::string& name) {
  auto example = std::make_unique<Example>();
  EXPECT_TRUE(example->tuning.ParseFromString(qvr_test::ReadFile(ExamplePath(name)))) << name;
  const char* missing = nullptr;
  const KorvaSettings* settings = QVRCS_SelectSettings(example->tuning, &missing);
  if (settings == nullptr) {
    ADD_FAILURE() << name << " has no " << missing;
    return example;
  }
  ConversionContext context;
  QVRCS_InitContext(context, kRate);
  EXPECT_EQ(QVRCS_ConvertPremix(context, *settings, example->premix, true), 0) << name;
  EXPECT_EQ(QVRCS_ConvertPostmix(context, *settings, example->postmix, true, {}), 0) << name;
  return example;
}

const CoefTable* TableAt(const google::protobuf::RepeatedPtrField<CoefTable>& tables) {
  return QVRCS_FindCoefTable(tables, kRate);
}

TEST(ExampleConfig, NamesSixDistinctTuningFilesWithDevices) {
  com::qvr::korva::configurator::qdsp6::ConfiguratorConfig config;
  const std::string text = qvr_test::ReadFile(ExamplePath("configurator.cfg"));
  ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &config));
  std::set<std::string> files;
  for (const auto* slot : {&config.attached0(), &config.attached1(), &config.lineout0(), &config.bluetooth0(),
                           &config.combo0(), &config.other()}) {
    files.insert(slot->filename());
    EXPECT_NE(slot->device_bitmask(), 0u) << slot->filename();
  }
  EXPECT_EQ(files.size(), 6u);
}

// Every section that an example's locators name ends up loaded: a room record
// carries its 48 kHz table (the files also hold 44.1 and 96 kHz ones), the
// headphone EQ record likewise, and the AEQ record is no longer the
// template's pass-through filter.
TEST(ExampleTuning, LoadsEveryRoomHeadphoneEqAndAeqItNames) {
  struct Section {
    const char* name;
    const Locators& (Postmix::*locators)() const;
    size_t offset, size, rateWord;
  };
  const size_t channel = 4 * qvrcs::kAeqChannelWords;
  const Section kSections[] = {
      {"multichannel", &Postmix::multichroom, qvrcs::kMultichRoomSlot, qvrcs::kMultichRoomCapacity,
       qvrcs::kRoomSampleRate},
      {"front", &Postmix::frontroom, qvrcs::kFrontRoomSlot, qvrcs::kFrontRoomCapacity, qvrcs::kRoomSampleRate},
      {"wide", &Postmix::wideroom, qvrcs::kWideRoomSlot, qvrcs::kWideRoomCapacity, qvrcs::kRoomSampleRate},
      {"hpeq", &Postmix::hpeqcoef, qvrcs::kHeadphoneEqSlot, qvrcs::kHeadphoneEqCapacity, qvrcs::kHpeqSampleRate},
      {"aeq", &Postmix::aeqcoef, qvrcs::kAeqRecord + 8, channel - 8, 0},
      {"aeq channel 1", &Postmix::aeqcoef, qvrcs::kAeqRecord + channel + 8, channel - 8, 0},
  };
  const std::pair<const char*, std::set<std::string>> kExamples[] = {
      {"headphones.bin", {"multichannel", "front", "wide", "hpeq", "aeq", "aeq channel 1"}},
      {"usb_headset.bin", {"multichannel", "front", "hpeq", "aeq", "aeq channel 1"}},
      {"bluetooth.bin", {"front", "hpeq", "aeq", "aeq channel 1"}},
      {"combo.bin", {"wide", "aeq", "aeq channel 1"}},
  };
  for (const auto& [file, expected] : kExamples) {
    SCOPED_TRACE(file);
    const auto example = Load(file);
    std::set<std::string> loaded;
    for (const Section& s : kSections) {
      const Locators& locators = (example->Settings().postmix().*s.locators)();
      if (std::none_of(locators.begin(), locators.end(), [](const auto& l) { return !l.uuid().empty(); })) continue;
      EXPECT_FALSE(example->AsTemplate(s.offset, s.size)) << s.name;
      EXPECT_TRUE(s.rateWord == 0 || example->Word(s.offset + s.rateWord) == static_cast<int32_t>(kRate)) << s.name;
      loaded.insert(s.name);
    }
    EXPECT_EQ(loaded, expected);
  }
}

// The headphone examples carry the harder forms: a headphone EQ of at most
// 128 taps per ear and one longer (cut by the loader), and an AEQ of three
// banks whose first has no 48 kHz table (dropped by the loader).
TEST(ExampleHeadphones, CarryShortAndLongHeadphoneEqAndAThreeBankAeq) {
  const auto shortForm = Load("headphones.bin");
  const auto& shortEq = shortForm->Settings().postmix().model().headphones(0);
  EXPECT_LE(shortEq.ihpirlength(), qvrcs::kHpeqMaxTaps);
  EXPECT_EQ(shortForm->Word(qvrcs::kHeadphoneEqSlot + qvrcs::kHpeqLength), static_cast<int32_t>(shortEq.ihpirlength()));

  const auto longForm = Load("usb_headset.bin");
  const auto& longEq = longForm->Settings().postmix().model().headphones(0);
  EXPECT_GT(longEq.ihpirlength(), qvrcs::kHpeqMaxTaps);
  ASSERT_NE(TableAt(longEq.coefftables()), nullptr);
  EXPECT_EQ(TableAt(longEq.coefftables())->coeff_16_size(), 2 + 2 * static_cast<int>(longEq.ihpirlength()));
  EXPECT_EQ(longForm->Word(qvrcs::kHeadphoneEqSlot + qvrcs::kHpeqLength), static_cast<int32_t>(qvrcs::kHpeqMaxTaps));

  const auto& aeq = longForm->Settings().postmix().model().aeqs(0);
  ASSERT_EQ(aeq.coefficient_table_size(), 3);
  EXPECT_EQ(TableAt(aeq.coefficient_table(0).iircoefs()), nullptr);
  EXPECT_NE(TableAt(aeq.coefficient_table(1).iircoefs()), nullptr);
  EXPECT_NE(TableAt(aeq.coefficient_table(2).iircoefs()), nullptr);
}

TEST(ExampleMax, Every48kHzTableFillsItsArea) {
  const auto max = Load("max.bin");
  const Postmix& postmix = max->Settings().postmix();
  const auto& model = postmix.model();
  ASSERT_EQ(model.rooms_size(), 3);
  const std::pair<const Locators*, size_t> rooms[] = {{&postmix.multichroom(), qvrcs::kMultichRoomCapacity},
                                                      {&postmix.frontroom(), qvrcs::kFrontRoomCapacity},
                                                      {&postmix.wideroom(), qvrcs::kWideRoomCapacity}};
  for (int i = 0; i < 3; ++i) {
    ASSERT_NE(TableAt(model.rooms(i).coefftables()), nullptr);
    EXPECT_EQ(qvrcs::kRoomCoefs + 2 * static_cast<size_t>(TableAt(model.rooms(i).coefftables())->coeff_16_size()),
              rooms[i].second);
    EXPECT_EQ(model.rooms(i).uuid(), rooms[i].first->Get(0).uuid());
  }
  // Long form: each ear's half of the table holds at least the taps per ear
  // that the slot keeps.
  const auto& hpeq = model.headphones(0);
  EXPECT_GT(hpeq.ihpirlength(), 128u);
  EXPECT_GE((TableAt(hpeq.coefftables())->coeff_16_size() - 2) / 2, static_cast<int>(qvrcs::kHpeqMaxTaps));
  for (const auto& bank : model.aeqs(0).coefficient_table()) {
    EXPECT_EQ(TableAt(bank.iircoefs())->coeff_32_size(), static_cast<int>(qvrcs::kAeqChannelCoefs));
  }
  const auto size = [](const auto& tables, bool wide) {
    const CoefTable* table = TableAt(tables);
    return table == nullptr ? 0u : static_cast<size_t>(wide ? table->coeff_32_size() : table->coeff_16_size());
  };
  EXPECT_EQ(size(postmix.hpf_coef().coeffs(), true), qvrcs::kHpfMaxCoefs);
  EXPECT_EQ(size(postmix.velmo_hpf_coef().hpf_coeffs(), false), qvrcs::kVelmoHpfMaxCoefs);
  EXPECT_EQ(size(postmix.velmo_xover_coef().lpf_coeffs(), false), qvrcs::kVelmoXoverCoefs);
  EXPECT_EQ(size(postmix.velmo_xover_coef().hpf_coeffs(), false), qvrcs::kVelmoXoverCoefs);
  EXPECT_EQ(size(postmix.gorm_coef().coeffs(), true), qvrcs::kGormMaxCoefs);
}

}  // namespace
