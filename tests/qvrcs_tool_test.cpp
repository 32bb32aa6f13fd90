// The qvrcs tool, called in-process: check on crafted search paths, explain
// against the converters' field maps, diff, the text and JSON round trips, and
// the faults of a first use. (What convert gives against what the driver
// receives is qvrcs_outcome_test's; refusals and usage errors, with what is
// written where, qvrcs_output_test's.)
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "configurator.pb.h"
#include "configurator/config_file.h"
#include "configurator/payload.h"
#include "block_support.h"
#include "test_support.h"
#include "tool_run.h"
#include "qvrcs/block_map.h"
#include "qvrcs/layout.h"
#include "qvrcs/sections.h"
#include "qvrcsPB.pb.h"
#include "tools/qvrcs/check.h"
#include "tools/qvrcs/tool.h"

namespace {

namespace fs = std::filesystem;
using com::qvr::pb::korva_v1_1::KorvaSettings;
using com::qvr::pb::wbn::Qvrcs;
using Json = nlohmann::json;
using qvrcs::block_test::AddTable16;
using qvrcs::block_test::AddTable32;
using qvrcs::block_test::Ramp;
using qvr_test::ReadFile;
using qvr_test::PostmixOf;
using qvr_test::SettingsOf;
using qvr_test::WriteFile;
using qvrcs_tool::CheckReport;
using qvrcs_tool::SlotReport;

constexpr const char* kOtherUuid = "6f1c2a3b-0000-4000-8000-00000000a002";

// A private search path per test.
class ToolTest : public qvr_test::ScratchDirTest {
 protected:
  using ScratchDirTest::Write;
  std::string Write(const std::string& name, const Qvrcs& tuning) { return Write(name, tuning.SerializeAsString()); }

  // configurator.cfg with `first` in attached0 and good.bin in every other slot.
  void WriteConfig(const std::string& first) {
    Write("good.bin", GoodTuning());
    // attached0's mask has the top bit set (device_bitmask is unsigned); the
    // other slots: good files made for their outputs.
    std::string text =
        std::string(qvr::kConfigSlots[0].name) + " { filename: \"" + first + "\" device_bitmask: 0xffffffff }\n";
    for (size_t i = 1; i < std::size(qvr::kConfigSlots); ++i) {
      const char* slot = qvr::kConfigSlots[i].name;
      Qvrcs good = GoodTuning();
      good.mutable_workspace(0)->mutable_routeconfiguration(0)->set_route(qvr::kConfigSlots[i].routes[0]);
      Write(std::string("good_") + slot + ".bin", good);
      text += std::string(slot) + " { filename: \"good_" + slot + ".bin\" device_bitmask: 1 }\n";
    }
    WriteFile(Path("configurator.cfg"), text);
  }

  // The check of a search path whose attached0 slot loads `tuning`.
  CheckReport CheckWith(const Qvrcs& tuning) {
    Write("slot.bin", tuning);
    WriteConfig("slot.bin");
    return qvrcs_tool::Check(dir());
  }
};

std::string Codes(const CheckReport& report) {
  std::string codes;
  for (const auto& w : report.warnings) codes += w.code + (w.note ? "(note) " : " ") + w.message + "\n";
  return codes;
}

// ---- check: failures --------------------------------------------------------

struct FailureCase {
  const char* name;
  void (*mutate)(Qvrcs&);
  int32_t postmixStatus;
  const char* culprit;  // expected in the slot's cause
};

const FailureCase kFailures[] = {
    {"unknown room", [](Qvrcs& t) { PostmixOf(t).mutable_frontroom(0)->set_uuid(kOtherUuid); }, -999,
     "postmix.frontRoom[0]: no listening model holds room \"6f1c2a3b-0000-4000-8000-00000000a002\""},
    {"room only in the top-level model list",
     [](Qvrcs& t) { *t.add_model() = PostmixOf(t).model(); PostmixOf(t).clear_model(); }, -999,
     "top-level model[0], which the configurator does not search"},
    {"room without a 48000 Hz table",
     [](Qvrcs& t) { PostmixOf(t).mutable_model()->mutable_rooms(0)->mutable_coefftables(0)->set_samplerate(44100); },
     -998, "has no coefficient table for 48000 Hz (its tables: 44100 Hz)"},
    {"room too large for the front slot",
     [](Qvrcs& t) {
       auto* tables = PostmixOf(t).mutable_model()->mutable_rooms(0)->mutable_coefftables();
       tables->Clear();
       AddTable16(tables, 48000, Ramp(6151, 1));
     },
     -997, "6151 coeff_16 values, a record of 12342 bytes; the slot holds 12340 (at most 6150 values)"},
    {"last headphone EQ without a 48000 Hz table",
     [](Qvrcs& t) { PostmixOf(t).mutable_model()->mutable_headphones(0)->mutable_coefftables(0)->clear_samplerate(); },
     -998, "postmix.hpeqCoef[0] (the last headphone EQ locator, the one that counts)"},
    {"unknown AEQ", [](Qvrcs& t) { PostmixOf(t).mutable_aeqcoef(0)->set_uuid(kOtherUuid); }, -998,
     "postmix.aeqCoef[0]: no listening model holds AEQ"},
    {"AEQ bank without a 48000 Hz table",
     [](Qvrcs& t) {
       PostmixOf(t).mutable_model()->mutable_aeqs(0)->mutable_coefficient_table(1)->mutable_iircoefs(0)->set_samplerate(
           96000);
     },
     -998, "channel 1 from bank 1 which has no 48000 Hz IIR table (its tables: 96000 Hz)"},
    {"Velmo high-pass without a usable table",
     [](Qvrcs& t) {
       auto* hpf = PostmixOf(t).mutable_velmo_hpf_coef();
       hpf->set_order(2);
       AddTable16(hpf->mutable_hpf_coeffs(), 48000, Ramp(21, 1));
       AddTable16(hpf->mutable_hpf_coeffs(), 44100, Ramp(6, 1));
     },
     -998, "order 2 needs a 48000 Hz table of at most 20 coeff_16 values (its tables: 48000 Hz with 21 values, "
           "44100 Hz with 6 values)"},
    {"negative postmix ref_htest",
     [](Qvrcs& t) {
       PostmixOf(t).mutable_enhance2()->add_ref_htest(100);
       PostmixOf(t).mutable_enhance2()->add_ref_htest(-1);
     },
     -997, "postmix.enhance2.ref_htest[1] = -1 is negative"},
};

TEST_F(ToolTest, CheckNamesTheRecordBehindEachFailure) {
  for (const FailureCase& c : kFailures) {
    SCOPED_TRACE(c.name);
    Qvrcs tuning = GoodTuning();
    c.mutate(tuning);
    const CheckReport report = CheckWith(tuning);
    ASSERT_TRUE(report.configOk);
    ASSERT_EQ(report.slots.size(), qvr::kCacheBlockCount);
    const SlotReport& slot = report.slots[0];
    EXPECT_EQ(slot.outcome, qvrcs_tool::SlotOutcome::kFails);
    EXPECT_EQ(slot.readerStatus, -4);
    EXPECT_EQ(slot.postmixStatus, c.postmixStatus);
    const std::string meaning = "postmix " + std::to_string(c.postmixStatus) + ": " + qvrcs::QVRCS_StatusText(c.postmixStatus);
    EXPECT_NE(slot.meaning.find(meaning), std::string::npos) << slot.meaning;
    EXPECT_NE(slot.culprit.find(c.culprit), std::string::npos) << slot.culprit;
    EXPECT_EQ(report.Failures(), 1u);
    for (size_t i = 1; i < report.slots.size(); ++i) EXPECT_EQ(report.slots[i].outcome, qvrcs_tool::SlotOutcome::kLoaded) << i;
  }
}

TEST_F(ToolTest, CheckReportsConfigurationErrorsWithLineAndColumn) {
  WriteFile(Path("configurator.cfg"), "attached0 {\n  filename: \"a.bin\"\n  devices: 3\n}\n");
  CheckReport report = qvrcs_tool::Check(dir());
  EXPECT_FALSE(report.configOk);
  ASSERT_FALSE(report.configErrors.empty());
  EXPECT_EQ(report.configErrors[0].rfind(Path("configurator.cfg") + ":3:10: ", 0), 0u) << report.configErrors[0];
  EXPECT_NE(report.configErrors[0].find("devices"), std::string::npos);
  EXPECT_TRUE(report.slots.empty());

  // Every slot and both its fields are required: the file is rejected whole
  // and says what is missing.
  std::string text = "attached0 { filename: \"a\" }\n";
  for (size_t i = 1; i + 1 < std::size(qvr::kConfigSlots); ++i) {
    text += std::string(qvr::kConfigSlots[i].name) + " { filename: \"a\" device_bitmask: 1 }\n";
  }
  WriteFile(Path("configurator.cfg"), text);
  report = qvrcs_tool::Check(dir());
  ASSERT_EQ(report.configErrors.size(), 1u);
  EXPECT_EQ(report.configErrors[0],
            Path("configurator.cfg") + ": Message missing required fields: other, attached0.device_bitmask");

  // A missing configurator.cfg, or one that is a directory, is a missing input.
  fs::remove(Path("configurator.cfg"));
  ToolRun run = RunTool({"check", dir()});
  EXPECT_EQ(run.status, qvrcs_tool::kExitBadInput);
  EXPECT_EQ(run.err, "qvrcs: " + Path("configurator.cfg") + ": cannot open: No such file or directory\n");
  fs::create_directory(Path("configurator.cfg"));
  run = RunTool({"check", dir()});
  EXPECT_EQ(run.status, qvrcs_tool::kExitBadInput);
  EXPECT_EQ(run.err, "qvrcs: " + Path("configurator.cfg") + ": is a directory, not a file\n");
}

// ---- check: warnings --------------------------------------------------------

struct WarningCase {
  const char* name;
  void (*mutate)(Qvrcs&);
  const char* code;
  const char* message;  // expected in the warning
  bool note;
};

const WarningCase kWarnings[] = {
    {"16-bit field", [](Qvrcs& t) { SettingsOf(t).mutable_premix()->mutable_dravo()->set_input_gain(70000); },
     "wrap16", "premix.dravo.input_gain = 70000 does not fit its 16-bit field: the DSP gets 4464", false},
    {"16-bit room coefficient",
     [](Qvrcs& t) { PostmixOf(t).mutable_model()->mutable_rooms(0)->mutable_coefftables(0)->set_coeff_16(3, 70000); },
     "wrap16", "coeff_16[3] = 70000 does not fit 16 bits, the DSP gets 4464", false},
    {"crossover low-pass past its area",
     [](Qvrcs& t) { AddTable16(PostmixOf(t).mutable_velmo_xover_coef()->mutable_lpf_coeffs(), 48000, Ramp(16, 1)); },
     "coef-overrun",
     "postmix.velmo_xover_coef.lpf_coeffs[0]: 16 values run 4 bytes past the section's end (byte 61336) into "
     "velmo_xover.hpf_coefs",
     false},
    {"Gorm cut at the block's end",
     [](Qvrcs& t) { AddTable32(PostmixOf(t).mutable_gorm_coef()->mutable_coeffs(), 48000, Ramp(30, 1)); },
     "coef-overrun",
     "postmix.gorm_coef.coeffs[0]: 30 values run 24 bytes past the section's end (byte 61468) and are cut at the "
     "end of the block: the last 6 values are dropped",
     false},
    {"AEQ channel 0 past its section",
     [](Qvrcs& t) {
       auto* table = PostmixOf(t).mutable_model()->mutable_aeqs(0)->mutable_coefficient_table(0)->mutable_iircoefs(0);
       for (int i = 0; i < 330; ++i) table->add_coeff_32(i);
     },
     "coef-overrun", "channel 0: 342 values run 32 bytes past the section's end (byte 59916) into the rest of aeq",
     false},
    {"postmix high-pass longer than its area",
     [](Qvrcs& t) { AddTable32(PostmixOf(t).mutable_hpf_coef()->mutable_coeffs(), 48000, Ramp(21, 1)); },
     "coef-overrun",
     "postmix.hpf_coef.coeffs[0] (48000 Hz) has 21 values, more than the 20 the section holds: not loaded", false},
    {"long headphone filter",
     [](Qvrcs& t) {
       auto* eq = PostmixOf(t).mutable_model()->mutable_headphones(0);
       eq->set_ihpirlength(256);
       eq->mutable_coefftables(0)->clear_coeff_16();
       for (int i = 0; i < 514; ++i) eq->mutable_coefftables(0)->add_coeff_16(i);
     },
     "hpeq-cut", "postmix.hpeqCoef[0]: ihpirLength 256: the DSP takes 128 taps per channel, the rest is cut", true},
    {"short headphone filter past its slot",
     [](Qvrcs& t) {
       auto* eq = PostmixOf(t).mutable_model()->mutable_headphones(0);
       for (int i = 0; i < 300; ++i) eq->mutable_coefftables(0)->add_coeff_16(i);
     },
     "coef-overrun", "headphone EQ: 318 values run 120 bytes past the section's end (byte 58488) into hpf.order",
     false},
    {"unknown headphone EQ", [](Qvrcs& t) { PostmixOf(t).mutable_hpeqcoef(0)->set_uuid(kOtherUuid); },
     "hpeq-unknown", "no listening model holds headphone EQ \"6f1c2a3b-0000-4000-8000-00000000a002\": nothing loaded",
     false},
    {"negative premix ref_htest",
     [](Qvrcs& t) { SettingsOf(t).mutable_premix()->mutable_enhance2()->add_ref_htest(-5); }, "ref-htest",
     "premix.enhance2.ref_htest[0] = -5 is negative: the premix Enhance2 section stops there", false},
    {"second settings version only",
     [](Qvrcs& t) {
       auto* tech = t.mutable_workspace(0)->mutable_routeconfiguration(0)->mutable_tech(0);
       tech->clear_korva_v1_1();
       tech->mutable_korva()->set_version("2");
     },
     "unused-v2", "tech[0] holds only korva settings (the second settings version), which the configurator ignores",
     false},
    {"extra workspace", [](Qvrcs& t) { *t.add_workspace() = t.workspace(0); }, "ignored",
     "2 workspaces: only workspace[0] is used", false},
    {"extra technology",
     [](Qvrcs& t) { t.mutable_workspace(0)->mutable_routeconfiguration(0)->add_tech(); }, "ignored",
     "workspace[0].routeConfiguration[0] has 2 tech records: only the first is used", false},
    // What the DSP gets silently wrong.
    {"room locator without uuid", [](Qvrcs& t) { PostmixOf(t).mutable_frontroom(0)->set_uuid(""); }, "room-no-uuid",
     "postmix.frontRoom[0]: empty uuid: nothing is loaded and the DSP gets front_room as the template left it",
     false},
    {"room uuid that is not a uuid",
     [](Qvrcs& t) {
       PostmixOf(t).mutable_model()->mutable_rooms(0)->set_uuid("living-room");
       PostmixOf(t).mutable_frontroom(0)->set_uuid("living-room");
     },
     "uuid-form", "uuid \"living-room\" is not 32 hex digits in 8-4-4-4-12 form", false},
    {"headphone EQ uuid that is not a uuid",
     [](Qvrcs& t) {
       PostmixOf(t).mutable_model()->mutable_headphones(0)->set_uuid("zz1c2a3b-0000-4000-8000-00000000a001");
       PostmixOf(t).mutable_hpeqcoef(0)->set_uuid("zz1c2a3b-0000-4000-8000-00000000a001");
     },
     "uuid-form", "uuid \"zz1c2a3b-0000-4000-8000-00000000a001\" is not 32 hex digits", false},
    {"room response longer than its section",
     [](Qvrcs& t) {
       PostmixOf(t).mutable_model()->mutable_rooms(0)->set_brirlength(7000);
       PostmixOf(t).mutable_model()->mutable_rooms(0)->set_numpairs(0);
     },
     "room-header", "brirLength 7000 is larger than the section, which holds 6150 values", false},
    {"room with more pairs than channels",
     [](Qvrcs& t) {
       PostmixOf(t).mutable_model()->mutable_rooms(0)->set_numpairs(3);
       PostmixOf(t).mutable_model()->mutable_rooms(0)->set_brirlength(10);
     },
     "room-header", "numPairs 3 but channelMask 3 names 2 channels", false},
    {"room with fewer values than its header says",
     [](Qvrcs& t) { PostmixOf(t).mutable_model()->mutable_rooms(0)->set_brirlength(60); }, "room-header",
     "100 values, fewer than numPairs x 2 x brirLength = 120", false},
    {"room header past its section",
     [](Qvrcs& t) { PostmixOf(t).mutable_model()->mutable_rooms(0)->set_brirlength(3100); }, "room-header",
     "100 values, fewer than numPairs x 2 x brirLength = 6200: the DSP reads zeros up to the section's end "
     "(byte 45608), then the following sections (wide_room, ...)",
     false},
    {"more entries than slots",
     [](Qvrcs& t) {
       for (int i = 0; i < 9; ++i) PostmixOf(t).add_zell_input_gain(-100 * i);
     },
     "dropped", "postmix.zell_input_gain has 9 entries, the block 6 slots: the last 3 are dropped", false},
    {"filter enabled without coefficients", [](Qvrcs& t) { PostmixOf(t).set_hpf_enable(1); }, "filter-no-coefs",
     "postmix.hpf_enable enables the filter, but postmix.hpf_coef.coeffs gives it no non-zero coefficient", false},
    {"tuning of another output",
     [](Qvrcs& t) {
       t.mutable_workspace(0)->mutable_routeconfiguration(0)->set_route(com::qvr::pb::wbn::AR_OUT_BLUETOOTH);
     },
     "route", "route AR_OUT_BLUETOOTH of another output than attached0, which takes AR_OUT_ATTACHED0 (1)", false},
    {"empty settings",
     [](Qvrcs& t) { t.mutable_workspace(0)->mutable_routeconfiguration(0)->mutable_tech(0)->clear_korva_v1_1(); },
     "empty-settings", "tech[0] holds no premix or postmix settings: the DSP gets the templates only", false},
};

TEST_F(ToolTest, CheckWarnsOfDataTheConfiguratorTakesSilently) {
  for (const WarningCase& c : kWarnings) {
    SCOPED_TRACE(c.name);
    Qvrcs tuning = GoodTuning();
    c.mutate(tuning);
    const CheckReport report = CheckWith(tuning);
    ASSERT_EQ(report.Failures(), 0u) << report.slots[0].culprit;
    bool found = false;
    for (const auto& w : report.warnings) {
      if (w.code == c.code && w.message.find(c.message) != std::string::npos) {
        found = true;
        EXPECT_EQ(w.note, c.note);
        EXPECT_EQ(w.slot, "attached0");
      }
    }
    EXPECT_TRUE(found) << Codes(report);
    EXPECT_EQ(report.Warnings(), c.note ? 0u : 1u) << Codes(report);
  }
}

TEST_F(ToolTest, CheckWarnsOfRelativeDevicePaths) {
  WriteConfig("good.bin");
  // Only the path the device gives the configurator can be relative to "/".
  const CheckReport relative = qvrcs_tool::Check(dir(), "etc/qvr");
  EXPECT_EQ(relative.storedPath, "/etc/qvr");
  ASSERT_FALSE(relative.warnings.empty());
  EXPECT_EQ(relative.warnings[0].code, "relative-path");
  EXPECT_NE(relative.warnings[0].message.find("would read /etc/qvr/configurator.cfg"), std::string::npos);
  const fs::path saved = fs::current_path();
  fs::current_path(dir());
  const CheckReport here = qvrcs_tool::Check(".");
  fs::current_path(saved);
  EXPECT_EQ(here.storedPath, std::string("/") + qvrcs_tool::kDevicePath);
  for (const auto& w : here.warnings) EXPECT_NE(w.code, "relative-path") << w.message;
}

// ---- explain and diff -------------------------------------------------------

// Every row of `json` by name and block.
const Json* RowNamed(const Json& rows, const std::string& block, const std::string& name) {
  for (const Json& row : rows) {
    if (row["block"] == block && row["name"] == name) return &row;
  }
  return nullptr;
}

TEST_F(ToolTest, ExplainNamesEveryConvertedFieldAtItsMappedOffset) {
  // Every settings field of both maps set to a value of its own.
  Qvrcs tuning = GoodTuning();
  KorvaSettings& settings = SettingsOf(tuning);
  const auto premixMap = qvrcs::PremixFieldMap();
  const auto postmixMap = qvrcs::PostmixControlFieldMap();
  int32_t next = 100;
  for (const auto* map : {&premixMap, &postmixMap}) {
    for (const qvrcs::FieldInfo& field : *map) {
      if (field.kind == qvrcs::FieldKind::kSetting) {
        ASSERT_TRUE(qvrcs::block_test::SetByPath(settings, field.path, next++)) << field.path;
      }
    }
  }
  const ToolRun run = RunTool({"explain", "--json", Write("all.bin", tuning)});
  ASSERT_EQ(run.status, qvrcs_tool::kExitOk) << run.err;
  const Json json = Json::parse(run.out);
  EXPECT_EQ(json["loads"], true);
  const Json& rows = json["rows"];

  next = 100;
  for (const auto& [block, map, base] : {std::make_tuple("premix", &premixMap, qvr::kPremixPayloadOffset),
                                         std::make_tuple("postmix", &postmixMap, qvr::kPostmixPayloadOffset)}) {
    for (const qvrcs::FieldInfo& field : *map) {
      const Json* row = RowNamed(rows, block, field.path);
      if (field.kind != qvrcs::FieldKind::kSetting) continue;  // "reserved" names several rows
      ASSERT_NE(row, nullptr) << field.path;
      EXPECT_EQ((*row)["offset"], field.offset) << field.path;
      EXPECT_EQ((*row)["payload_offset"], base + field.offset) << field.path;
      EXPECT_EQ((*row)["width"], field.width) << field.path;
      EXPECT_EQ((*row)["origin"], "file") << field.path;
      EXPECT_EQ((*row)["value"], next++) << field.path;
    }
  }
  for (const qvrcs::SectionInfo& section : qvrcs::kPostmixSections) {
    const Json* row = RowNamed(rows, "postmix", section.name);
    ASSERT_NE(row, nullptr) << section.name;
    EXPECT_EQ((*row)["offset"], section.offset);
    EXPECT_EQ((*row)["size"], section.size);
  }
  EXPECT_EQ(rows.size(), premixMap.size() + postmixMap.size() + qvrcs::kPostmixSectionCount + 2);

  // The sections the file feeds name their records; the others keep the template.
  EXPECT_EQ((*RowNamed(rows, "postmix", "front_room"))["origin"], "file");
  EXPECT_EQ((*RowNamed(rows, "postmix", "front_room"))["source"],
            std::string("postmix.frontRoom[0] \"") + kGoodUuid + "\"");
  EXPECT_NE((*RowNamed(rows, "postmix", "front_room"))["note"].get<std::string>().find(
                "48000 Hz, 100 values, record ends at byte " + std::to_string(qvrcs::kFrontRoomSlot + 40 + 200)),
            std::string::npos);
  EXPECT_EQ((*RowNamed(rows, "postmix", "multich_room"))["origin"], "template");
  EXPECT_EQ((*RowNamed(rows, "postmix", "fixed_words"))["data"]["values"], Json::parse("[3000, 9540, 5000, 5000]"));
  const Json& room = (*RowNamed(rows, "postmix", "front_room"))["data"];
  EXPECT_EQ(room["numPairs"], 1);
  EXPECT_EQ(room["coefficients"][99], 100);
  EXPECT_EQ(room["coefficients"][100], 0);
}

TEST_F(ToolTest, ExplainMarksTemplateValuesAndShowsAFailedConversion) {
  Qvrcs tuning = GoodTuning();
  PostmixOf(tuning).mutable_frontroom(0)->set_uuid(kOtherUuid);
  SettingsOf(tuning).mutable_postmix()->set_zell_multi_ch(-1);
  const ToolRun run = RunTool({"explain", "--json", Write("bad.bin", tuning)});
  ASSERT_EQ(run.status, qvrcs_tool::kExitFindings) << "a file that will not load";
  const Json json = Json::parse(run.out);
  EXPECT_EQ(json["loads"], false);
  EXPECT_EQ(json["postmix_status"], -999);
  EXPECT_NE(json["failure"].get<std::string>().find("postmix.frontRoom[0]"), std::string::npos);
  const Json& rows = json["rows"];
  EXPECT_EQ((*RowNamed(rows, "premix", "premix.dravo.mode"))["origin"], "template");
  EXPECT_EQ((*RowNamed(rows, "premix", "premix.dravo.input_gain"))["origin"], "file");
  const Json& multiCh = *RowNamed(rows, "postmix", "postmix.zell_multi_ch");
  EXPECT_EQ(multiCh["value"], 0);
  EXPECT_EQ(multiCh["note"], "the file gives -1, stored as 0");
  // The conversion stopped at the front room: later sections keep the template.
  EXPECT_EQ((*RowNamed(rows, "postmix", "hpeq"))["origin"], "template");
  EXPECT_EQ((*RowNamed(rows, "postmix", "aeq"))["origin"], "template");
}

TEST_F(ToolTest, DiffListsExactlyTheFieldsThatDiffer) {
  Qvrcs a = GoodTuning();
  Qvrcs b = GoodTuning();
  PostmixOf(b).mutable_velmo()->mutable_gorm()->set_level(1234);
  b.mutable_workspace(0)->mutable_routeconfiguration(0)->mutable_tech(0)->mutable_korva_v1_1()
      ->mutable_postmix()->mutable_model()->mutable_rooms(0)->mutable_coefftables(0)->set_coeff_16(7, -9);
  const std::string pathA = Write("a.bin", a);
  const std::string pathB = Write("b.bin", b);

  ToolRun run = RunTool({"diff", "--json", pathA, pathB});
  EXPECT_EQ(run.status, qvrcs_tool::kExitFindings);
  const Json json = Json::parse(run.out);
  ASSERT_EQ(json["differences"].size(), 2u) << run.out;
  const Json& level = json["differences"][0];
  EXPECT_EQ(level["name"], "postmix.velmo.gorm.level");
  EXPECT_EQ(level["offset"], qvrcs::FindField(qvrcs::PostmixControlFieldMap(), "postmix.velmo.gorm.level")->offset);
  EXPECT_EQ(level["a"]["origin"], "template");
  EXPECT_EQ(level["b"]["value"], 1234);
  const Json& room = json["differences"][1];
  EXPECT_EQ(room["name"], "front_room");
  EXPECT_EQ(room["values_differing"], 1);
  EXPECT_EQ(room["first_offset"], qvrcs::kFrontRoomSlot + 40 + 2 * 7);

}

TEST_F(ToolTest, ExplainAndDiffShowWhatCheckWarnsOfAtTheField) {
  Qvrcs tuning = GoodTuning();
  PostmixOf(tuning).mutable_model()->mutable_rooms(0)->mutable_coefftables(0)->set_coeff_16(3, 70000);
  for (int i = 0; i < 9; ++i) PostmixOf(tuning).add_zell_input_gain(i);
  const std::string path = Write("warned.bin", tuning);
  const ToolRun text = RunTool({"explain", "--changed", path});
  ASSERT_EQ(text.status, qvrcs_tool::kExitOk);
  const size_t room = text.out.find("front_room");
  ASSERT_NE(room, std::string::npos) << text.out;
  EXPECT_NE(text.out.find("warning: room postmix.model.rooms[0]", room), std::string::npos) << text.out;
  const Json json = Json::parse(RunTool({"explain", "--json", path}).out);
  EXPECT_EQ((*RowNamed(json["rows"], "postmix", "front_room"))["warnings"][0]["code"], "wrap16");
  EXPECT_EQ((*RowNamed(json["rows"], "postmix", "postmix.zell_input_gain[0]"))["warnings"][0]["code"], "dropped");
  EXPECT_EQ(json["warnings"].size(), 2u);

  // The blocks of six and of nine entries agree; the dropped three still show.
  Qvrcs six = GoodTuning();
  for (int i = 0; i < 6; ++i) PostmixOf(six).add_zell_input_gain(i);
  Qvrcs nine = six;
  for (int i = 6; i < 9; ++i) PostmixOf(nine).add_zell_input_gain(i);
  const ToolRun diff = RunTool({"diff", Write("six.bin", six), Write("nine.bin", nine)});
  EXPECT_EQ(diff.status, qvrcs_tool::kExitFindings);
  EXPECT_NE(diff.out.find("b only: warning: postmix.zell_input_gain has 9 entries, the block 6 slots: the last 3 "
                          "are dropped [dropped]\n0 fields or sections differ, 1 warning differs"),
            std::string::npos)
      << diff.out;
}

// ---- convert ----------------------------------------------------------------

TEST_F(ToolTest, ConvertReportsFilesTheConfiguratorWouldNotUpload) {
  Qvrcs bad = GoodTuning();
  PostmixOf(bad).mutable_frontroom(0)->set_uuid(kOtherUuid);
  ToolRun run = RunTool({"convert", Write("bad.bin", bad), "-o", Path("bad.payload")});
  EXPECT_EQ(run.status, qvrcs_tool::kExitFindings);
  EXPECT_FALSE(fs::exists(Path("bad.payload")));
  EXPECT_EQ(run.err, "qvrcs: " + Path("bad.bin") +
                         ": the configurator would not upload it (reader -4, premix 0, postmix -999): "
                         "postmix.frontRoom[0]: no listening model holds room \"" + kOtherUuid + "\"\n");

}

// ---- dump and encode --------------------------------------------------------

TEST_F(ToolTest, DumpAndEncodeRoundTripEveryExample) {
  for (const auto& entry : fs::directory_iterator(QVR_EXAMPLES_DIR)) {
    if (entry.path().extension() != ".bin") continue;
    SCOPED_TRACE(entry.path().string());
    const std::string text = Path("dump.textproto");
    const std::string again = Path("again.bin");
    ASSERT_EQ(RunTool({"dump", entry.path().string(), "-o", text}).status, qvrcs_tool::kExitOk);
    const ToolRun run = RunTool({"encode", text, "-o", again});
    ASSERT_EQ(run.status, qvrcs_tool::kExitOk) << run.err;
    EXPECT_TRUE(ReadFile(again) == ReadFile(entry.path().string()));
  }
}

// ---- many inputs, text tuning files -------------------------------------------

TEST_F(ToolTest, CheckTakesManySetsAndSingleFilesWithASummaryInInputOrder) {
  WriteConfig("good.bin");
  Qvrcs bad = GoodTuning();
  PostmixOf(bad).mutable_frontroom(0)->set_uuid(kOtherUuid);
  const std::string badFile = Write("bad.bin", bad);
  WriteFile(Path("good.textproto"), RunTool({"dump", Path("good.bin")}).out);
  const std::vector<std::string> inputs = {dir(), badFile, Path("good.textproto"), QVR_EXAMPLES_DIR};

  std::vector<std::string> args = {"check", "-j", "1"};
  args.insert(args.end(), inputs.begin(), inputs.end());
  const ToolRun serial = RunTool(args);
  EXPECT_EQ(serial.status, qvrcs_tool::kExitFindings);
  EXPECT_NE(serial.out.find("tuning file " + badFile + ", checked as one slot\n-          bad.bin"),
            std::string::npos) << serial.out;
  EXPECT_NE(serial.out.find("postmix.frontRoom[0]: no listening model holds room"), std::string::npos);
  // The set column is as wide as the longest set, the example folder's path included.
  const size_t textRow = serial.out.find("\n" + Path("good.textproto") + " ");
  ASSERT_NE(textRow, std::string::npos) << serial.out;
  EXPECT_EQ(serial.out.find_first_not_of(' ', textRow + 1 + Path("good.textproto").size()),
            serial.out.find(" -          good.textproto", textRow) + 1)
      << serial.out;
  EXPECT_NE(serial.out.find("4 inputs: 13 of 14 slots load, 0 warnings\n"), std::string::npos) << serial.out;

  // One JSON line per slot, in input order; one document with --json.
  args[2] = "2";
  args.push_back("--jsonl");
  const ToolRun lines = RunTool(args);
  std::istringstream stream(lines.out);
  std::vector<Json> records;
  for (std::string line; std::getline(stream, line);) records.push_back(Json::parse(line));
  ASSERT_EQ(records.size(), 14u) << lines.out;
  EXPECT_EQ(records[0]["input"], dir());
  EXPECT_EQ(records[6]["input"], badFile);
  EXPECT_EQ(records[6]["outcome"], "fails");
  EXPECT_EQ(records[7]["outcome"], "loaded");
  EXPECT_EQ(records[13]["slot"], "other");
  args.back() = "--json";
  const Json document = Json::parse(RunTool(args).out);
  EXPECT_EQ(document["inputs"].size(), 4u);
  EXPECT_EQ(document["summary"]["failing"], 1);
  EXPECT_EQ(document["summary"]["loaded"], 13);

  // A missing input is reported and counted; the others are still checked.
  const ToolRun missing = RunTool({"check", Path("none"), dir()});
  EXPECT_EQ(missing.status, qvrcs_tool::kExitBadInput);
  EXPECT_EQ(missing.err, "qvrcs: " + Path("none") + ": cannot open: No such file or directory\n");
  EXPECT_NE(missing.out.find("6 of 6 slots load, 1 input not checked"), std::string::npos) << missing.out;
}

TEST_F(ToolTest, TextAndJsonTuningFilesAreTakenWhereverATuningFileIs) {
  const std::string binary = Write("good.bin", GoodTuning());
  const ToolRun text = RunTool({"dump", binary});
  ASSERT_EQ(text.status, qvrcs_tool::kExitOk);
  EXPECT_NE(text.out.find("coeff_16: [1, 2, 3, 4, 5"), std::string::npos) << "repeated numbers on one line";
  WriteFile(Path("good.textproto"), text.out);
  WriteFile(Path("good.json"), RunTool({"dump", "--json", binary}).out);

  // The same record: the same bytes encoded, no field or section differing.
  for (const std::string& form : {Path("good.textproto"), Path("good.json")}) {
    SCOPED_TRACE(form);
    ASSERT_EQ(RunTool({"encode", form, "-o", Path("again.bin")}).status, qvrcs_tool::kExitOk);
    EXPECT_TRUE(ReadFile(Path("again.bin")) == ReadFile(binary));
    EXPECT_EQ(RunTool({"diff", binary, form}).status, qvrcs_tool::kExitOk);
    EXPECT_EQ(RunTool({"convert", form, "-o", Path("text.payload")}).status, qvrcs_tool::kExitOk);
  }
  // Edited text checked directly: what the device makes of it, then the
  // text error with file, line and column.
  WriteFile(Path("bad.textproto"), "workspace {\n  routeConfiguration {\n    tecch {}\n  }\n}\n");
  for (std::vector<std::string> args : std::vector<std::vector<std::string>>{
           {"check"}, {"explain"}, {"dump"}, {"encode", "-o", Path("out.bin")}}) {
    args.insert(args.begin() + 1, Path("bad.textproto"));
    const ToolRun run = RunTool(args);
    const bool check = args[0] == "check";
    EXPECT_EQ(run.status, check ? qvrcs_tool::kExitFindings : qvrcs_tool::kExitBadInput) << args[0];
    const std::string& said = check ? run.out : run.err;
    EXPECT_NE(said.find("does not parse as a tuning file: the configurator uploads an all-zero payload"),
              std::string::npos) << args[0] << said;
    EXPECT_NE(said.find("\n  " + Path("bad.textproto") + ":3:11: "), std::string::npos) << args[0] << said;
  }
  EXPECT_FALSE(fs::exists(Path("out.bin")));
}

// ---- the faults of a first use ----------------------------------------------

TEST_F(ToolTest, DashIsStandardInputAndOutputAndStatusLinesStayOffTheData) {
  const std::string binary = Write("good.bin", GoodTuning());
  const std::string bytes = ReadFile(binary);
  ToolRun run = RunTool({"dump", "-"}, bytes);
  ASSERT_EQ(run.status, qvrcs_tool::kExitOk);
  const ToolRun encoded = RunTool({"encode", "-", "-o", "-"}, run.out);
  EXPECT_TRUE(encoded.out == bytes);
  EXPECT_EQ(RunTool({"check", "-"}, run.out).status, qvrcs_tool::kExitOk);
  EXPECT_EQ(RunTool({"explain", "-"}, bytes).status, qvrcs_tool::kExitOk);
}

TEST_F(ToolTest, BytesThatAreNotUtf8AreEscapedInJson) {
  // A uuid holding 0xFF, a file name holding 0xFF, a version holding "K\xFCche".
  Qvrcs tuning = GoodTuning();
  PostmixOf(tuning).mutable_frontroom(0)->set_uuid("\xff");
  SettingsOf(tuning).set_version("K\xfc" "che");
  const std::string odd = Write("odd\xff.bin", tuning);
  ToolRun run = RunTool({"check", "--json", odd});
  const Json check = Json::parse(run.out);
  EXPECT_EQ(check["inputs"][0]["input"], Path("odd\\xFF.bin"));
  EXPECT_NE(check["inputs"][0]["slots"][0]["cause"].get<std::string>().find("\"\\xFF\""), std::string::npos);
  run = RunTool({"explain", "--json", odd});
  EXPECT_EQ(Json::parse(run.out)["file"], Path("odd\\xFF.bin"));
  run = RunTool({"dump", "--json", odd});
  EXPECT_EQ(Json::parse(run.out)["workspace"][0]["routeConfiguration"][0]["tech"][0]["korva_v1_1"]["version"],
            "K\\xFCche");

  // configurator.cfg starting with a byte-order mark.
  WriteConfig("good.bin");
  WriteFile(Path("configurator.cfg"), "\xef\xbb\xbf" + ReadFile(Path("configurator.cfg")));
  run = RunTool({"check", "--json", dir()});
  EXPECT_EQ(run.err, "");
  EXPECT_FALSE(Json::parse(run.out)["inputs"][0]["config"]["ok"]);
}

TEST_F(ToolTest, CheckTableKeepsItsColumnsForLongAndNonAsciiNames) {
  Write("lineout_amp_rev_b_2024.bin", GoodTuning());
  Write("K\xc3\xbc" "che.bin", GoodTuning());
  WriteConfig("lineout_amp_rev_b_2024.bin");
  std::string text = ReadFile(Path("configurator.cfg"));
  text.replace(text.find("good_attached1.bin"), 18, "K\xc3\xbc" "che.bin");
  WriteFile(Path("configurator.cfg"), text);
  const ToolRun run = RunTool({"check", dir()});
  EXPECT_NE(run.out.find("attached0  lineout_amp_rev_b_2024.bin loaded\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("attached1  K\xc3\xbc" "che.bin                  loaded\n"), std::string::npos) << run.out;
}

TEST_F(ToolTest, EmptyInputsAndNamesAreSaidSo) {
  WriteFile(Path("empty.bin"), "");
  ToolRun run = RunTool({"dump", Path("empty.bin")});
  EXPECT_EQ(run.status, qvrcs_tool::kExitOk);
  EXPECT_EQ(run.err, "qvrcs: " + Path("empty.bin") + ": note: an empty message, no field is set\n");
  WriteFile(Path("empty.textproto"), "# nothing yet\n");
  run = RunTool({"encode", Path("empty.textproto"), "-o", Path("out.bin")});
  EXPECT_NE(run.err.find("note: an empty message: the tuning file written is 0 bytes"), std::string::npos);
  run = RunTool({"check", ""});
  EXPECT_EQ(run.status, qvrcs_tool::kExitBadInput);
  EXPECT_EQ(run.err, "qvrcs: \"\": empty file name\n");
  // The exit status paragraph is in the tool's help only; each command has help of its own.
  EXPECT_NE(RunTool({"--help"}).out.find("Exit status:"), std::string::npos);
  run = RunTool({"check", "--help"});
  EXPECT_EQ(run.status, qvrcs_tool::kExitOk);
  EXPECT_NE(run.out.find("--warnings-ok"), std::string::npos);
  EXPECT_EQ(run.out.find("Exit status:"), std::string::npos);
  EXPECT_EQ(RunTool({"--version"}).out, std::string("qvrcs ") + QVRCS_VERSION + "\n");
}

}  // namespace
