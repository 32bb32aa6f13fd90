// What qvrcs says a slot or a file comes to, held against what the device
// does: the configurator under the simulated driver beside `check` for every
// kind of slot file, inputs read as the device reads them, no warning from a
// section the conversion never reached, and the round trips that must be exact.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "block_support.h"
#include "configurator/config_file.h"
#include "configurator/korva_driver.h"
#include "configurator/payload.h"
#include "e2e_support.h"
#include "tool_run.h"
#include "tools/qvrcs/check.h"
#include "tools/qvrcs/report.h"

namespace {

namespace fs = std::filesystem;
using com::qvr::pb::wbn::Qvrcs;
using Json = nlohmann::json;
using qvr_test::PostmixOf;
using qvr_test::ReadFile;
using qvr_test::SettingsOf;
using qvr_test::WriteFile;
using qvrcs_tool::SlotOutcome;

// ---- every kind of slot file: check against the configurator --------------

struct SlotKind {
  const char* file;           // as configurator.cfg names it
  void (*make)(const std::string& dir);  // what stands at that name in `dir`
  SlotOutcome outcome;
};

const SlotKind kKinds[] = {
    {"good.bin", [](const std::string& d) { WriteFile(d + "/good.bin", GoodTuning().SerializeAsString()); },
     SlotOutcome::kLoaded},
    {"missing.bin", [](const std::string&) {}, SlotOutcome::kFails},
    {"empty.bin", [](const std::string& d) { WriteFile(d + "/empty.bin", ""); }, SlotOutcome::kFails},
    {"folder.bin", [](const std::string& d) { fs::create_directory(d + "/folder.bin"); }, SlotOutcome::kBlank},
    {"", [](const std::string&) {}, SlotOutcome::kBlank},  // names the search path itself
    {"bad.bin",
     [](const std::string& d) {
       Qvrcs bad = GoodTuning();
       PostmixOf(bad).mutable_frontroom(0)->set_uuid("6f1c2a3b-0000-4000-8000-00000000a002");
       WriteFile(d + "/bad.bin", bad.SerializeAsString());
     },
     SlotOutcome::kFails},
};

class OutcomeTest : public e2e::E2eTest {
 protected:
  // Every kind of slot file, named by the set's configurator.cfg.
  void WriteEveryKind() {
    std::vector<std::string> files;
    for (const SlotKind& kind : kKinds) {
      kind.make(dir());
      files.push_back(kind.file);
    }
    Write("configurator.cfg", SlotConfig(files));
  }

  // Checks the set and runs the configurator on it under the simulator: per
  // slot the reader's result, its log lines and the upload agree with check's
  // outcome (a slot not checked: whatever the configurator does).
  qvrcs_tool::CheckReport CheckBesideConfigurator() {
    const qvrcs_tool::CheckReport report = qvrcs_tool::Check(dir());
    const e2e::RunResult run = RunConfigurator({}, {dir()});
    std::vector<std::string> returns;
    for (const std::string& line : run.log) {
      if (line.rfind("QVRCS_GetPremixData() returns ", 0) == 0) returns.push_back(line);
    }
    EXPECT_EQ(returns.size(), report.slots.size()) << run.err;
    const std::vector<e2e::Request> uploads = run.Of("SET_PARAM");
    size_t upload = 0;
    for (size_t i = 0; i < report.slots.size() && i < returns.size(); ++i) {
      const qvrcs_tool::SlotReport& slot = report.slots[i];
      SCOPED_TRACE(slot.slot + " \"" + slot.filename + "\": " + qvrcs_tool::OutcomeText(slot));
      if (slot.outcome == SlotOutcome::kNotChecked) {
        upload += returns[i] == "QVRCS_GetPremixData() returns 0" ? 1 : 0;
        continue;
      }
      EXPECT_EQ(returns[i], "QVRCS_GetPremixData() returns " + std::to_string(slot.readerStatus));
      // The reader's own lines, as the configurator logs them (its path is rooted at "/").
      std::istringstream lines(slot.log);
      for (std::string line; std::getline(lines, line);) {
        const size_t at = line.find(dir());
        if (at != std::string::npos) line.insert(at, "/");
        EXPECT_EQ(run.Count(line), 1u) << line;
      }
      if (slot.outcome == SlotOutcome::kFails || upload >= uploads.size()) continue;
      const std::string sent(uploads[upload].arg.begin() + sizeof(qvr_korva_param_desc), uploads[upload].arg.end());
      ++upload;
      const std::string expected = slot.outcome == SlotOutcome::kBlank ? std::string(qvr::kCacheBlockSize, '\0')
                                                                       : RunTool({"convert", slot.path, "-o", "-"}).out;
      EXPECT_TRUE(sent == expected) << "the upload differs from what check says";
    }
    EXPECT_EQ(upload, uploads.size());
    return report;
  }
};

TEST_F(OutcomeTest, CheckSaysWhatTheConfiguratorDoesWithEachKindOfSlotFile) {
  WriteEveryKind();
  const qvrcs_tool::CheckReport report = CheckBesideConfigurator();
  for (size_t i = 0; i < std::size(kKinds); ++i) EXPECT_EQ(report.slots[i].outcome, kKinds[i].outcome) << i;
  // check's JSON gives the same outcome per slot.
  const Json json = Json::parse(RunTool({"check", "--json", dir()}).out);
  for (size_t i = 0; i < std::size(kKinds); ++i) {
    EXPECT_EQ(json["inputs"][0]["slots"][i]["outcome"], qvrcs_tool::OutcomeCode(report.slots[i].outcome)) << i;
  }
  // Given its configurator.cfg, check checks the set.
  EXPECT_EQ(RunTool({"check", Path("configurator.cfg")}).out, RunTool({"check", dir()}).out);
}

// The report page states each slot as check does.
TEST_F(OutcomeTest, ReportPageGivesCheckOutcomePerSlot) {
  WriteEveryKind();
  const qvrcs_tool::CheckReport report = qvrcs_tool::Check(dir());
  const std::string page = qvrcs_tool::ReportPage({dir()});
  EXPECT_NE(page.find("1 of 6 slots load"), std::string::npos);
  for (size_t i = 0; i < std::size(kKinds); ++i) {
    EXPECT_NE(page.find(qvrcs_tool::EscapeHtml(qvrcs_tool::OutcomeText(report.slots[i]))), std::string::npos) << i;
  }
}

TEST_F(OutcomeTest, SlotFilesQvrcsDoesNotReadAreSaidSoAndNeverWaitedFor) {
  fs::create_symlink("/dev/zero", Path("zero.bin"));
  Write("large.bin", "");
  fs::resize_file(Path("large.bin"), (64u << 20) + 1);  // sparse
  Write("good.bin", GoodTuning().SerializeAsString());
  Write("locked.bin", GoodTuning().SerializeAsString());
  chmod(Path("locked.bin").c_str(), 0);
  Write("configurator.cfg", SlotConfig({"zero.bin", "large.bin", "locked.bin", "good.bin"}));
  const qvrcs_tool::CheckReport report = CheckBesideConfigurator();
  EXPECT_EQ(qvrcs_tool::OutcomeText(report.slots[0]),
            "not checked (a character device: what the configurator reads from it depends on the device)");
  EXPECT_EQ(qvrcs_tool::OutcomeText(report.slots[1]), "not checked (larger than qvrcs reads)");
  if (geteuid() != 0) {  // root opens any file
    EXPECT_EQ(qvrcs_tool::OutcomeText(report.slots[2]), "FAILS: reader -4, the tuning file could not be opened");
    EXPECT_EQ(report.slots[2].culprit, Path("locked.bin") + ": cannot open: Permission denied");
  }
  // A FIFO would hold the configurator in open() for good: never run, never opened.
  ASSERT_EQ(mkfifo(Path("fifo.bin").c_str(), 0600), 0);
  EXPECT_EQ(qvrcs_tool::OutcomeText(qvrcs_tool::CheckFile(Path("fifo.bin"), "fifo.bin").slots[0]),
            "BLOCKS: a FIFO: the configurator would wait in open() for a writer for good and never finish loading");
}

// ---- inputs read as the device reads them -----------------------------------

struct InputCase {
  const char* name;
  const char* bytes;
  bool textLine;  // the text error follows as a second line
};

const InputCase kInputs[] = {
    {"comma.bin", ",", false},
    {"brace.txt", "{", false},
    {"comma.txt", ",", false},
    {"edited.textproto", "workspace {\n  tecch {}\n}\n", true},
};

TEST_F(OutcomeTest, AFileThatParsesNeitherWayIsWhatTheDeviceMakesOfIt) {
  const std::string device = "does not parse as a tuning file: the configurator uploads an all-zero payload";
  for (const InputCase& c : kInputs) {
    SCOPED_TRACE(c.name);
    const std::string path = Write(c.name, c.bytes);
    const ToolRun convert = RunTool({"convert", path, "-o", Path("out.payload")});
    EXPECT_EQ(convert.status, qvrcs_tool::kExitFindings);
    EXPECT_TRUE(ReadFile(Path("out.payload")) == std::string(qvr::kCacheBlockSize, '\0'));
    EXPECT_NE(convert.err.find("qvrcs: " + path + ": " + device), std::string::npos) << convert.err;
    const ToolRun explain = RunTool({"explain", path});
    EXPECT_EQ(explain.status, qvrcs_tool::kExitBadInput);
    EXPECT_EQ(explain.err.rfind("qvrcs: " + path + ": " + device, 0), 0u) << explain.err;
    EXPECT_EQ(explain.err.find("\n  " + path + ":") != std::string::npos, c.textLine) << explain.err;
    EXPECT_EQ(Json::parse(RunTool({"check", "--json", path}).out)["inputs"][0]["slots"][0]["outcome"], "blank");
  }
  // A text tuning file named *.bin is binary unless --format says otherwise.
  Write("text.bin", RunTool({"dump", Write("good.bin", GoodTuning().SerializeAsString())}).out);
  EXPECT_EQ(RunTool({"explain", Path("text.bin")}).status, qvrcs_tool::kExitBadInput);
  EXPECT_EQ(RunTool({"explain", "--format", "text", Path("text.bin")}).status, qvrcs_tool::kExitOk);
}

// ---- warnings only from what the conversion reached --------------------------

struct StopCase {
  const char* name;
  void (*mutate)(Qvrcs&);
  const char* code;  // a warning the section would draw, had the conversion got there
};

const StopCase kStops[] = {
    {"filter after a room no model holds (-999)",
     [](Qvrcs& t) {
       PostmixOf(t).add_multichroom()->set_uuid("6f1c2a3b-0000-4000-8000-00000000a009");
       PostmixOf(t).set_hpf_enable(1);
     },
     "filter-no-coefs"},
    {"empty room locator after a room no model holds (-999)",
     [](Qvrcs& t) {
       PostmixOf(t).add_multichroom()->set_uuid("6f1c2a3b-0000-4000-8000-00000000a009");
       PostmixOf(t).mutable_frontroom(0)->set_uuid("");
     },
     "room-no-uuid"},
    {"sections after a negative ref_htest (-997)",
     [](Qvrcs& t) {
       PostmixOf(t).mutable_enhance2()->add_ref_htest(-1);
       PostmixOf(t).set_hpf_enable(1);
       PostmixOf(t).mutable_frontroom(0)->set_uuid("");
     },
     "filter-no-coefs"},
};

TEST_F(OutcomeTest, NoWarningComesFromASectionTheConversionNeverReached) {
  for (const StopCase& c : kStops) {
    SCOPED_TRACE(c.name);
    Qvrcs tuning = GoodTuning();
    c.mutate(tuning);
    const ToolRun run = RunTool({"check", Write("stop.bin", tuning.SerializeAsString())});
    EXPECT_NE(run.out.find("FAILS"), std::string::npos) << run.out;
    EXPECT_EQ(run.out.find("[filter-no-coefs]"), std::string::npos) << run.out;
    EXPECT_EQ(run.out.find("[room-no-uuid]"), std::string::npos) << run.out;
  }
}

// ---- exact round trips ---------------------------------------------------------

// A file against its own payload, upload or cache block: the same, its notes
// included; another cache block differs.
TEST_F(OutcomeTest, AFileAgainstItsOwnPayloadUploadOrCacheBlockDiffersInNothing) {
  Qvrcs tuning = GoodTuning();
  auto* eq = PostmixOf(tuning).mutable_model()->mutable_headphones(0);  // a long filter: a note
  eq->set_ihpirlength(256);
  eq->mutable_coefftables(0)->clear_coeff_16();
  for (int32_t v : qvrcs::block_test::Ramp(514, 1)) eq->mutable_coefftables(0)->add_coeff_16(v);
  const std::string file = Write("noted.bin", tuning.SerializeAsString());
  const std::string payload = RunTool({"convert", file, "-o", "-"}).out;
  Write("noted.payload", payload);
  const qvr_korva_param_desc desc{PARAM_ID_PREMIX, static_cast<int32_t>(qvr::kCacheBlockSize), 0, 0x80000003u};
  Write("upload.bin", std::string(reinterpret_cast<const char*>(&desc), sizeof desc) + payload);
  std::string cache(static_cast<size_t>(qvr::kDriverCacheSize), '\0');
  cache.replace(2 * qvr::kCacheBlockSize, qvr::kCacheBlockSize, payload);
  Write("cache.bin", cache);
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"diff", file, Path("noted.payload")},
                                             {"diff", file, Path("upload.bin")},
                                             {"diff", "--block", "2", Path("cache.bin"), file}}) {
    const ToolRun run = RunTool(args);
    EXPECT_EQ(run.status, qvrcs_tool::kExitOk) << run.out;
    EXPECT_NE(run.out.find("0 fields or sections differ\n"), std::string::npos) << run.out;
  }
  EXPECT_EQ(RunTool({"diff", "--block", "3", Path("cache.bin"), file}).status, qvrcs_tool::kExitFindings);
  const ToolRun whole = RunTool({"diff", file, Path("cache.bin")});
  EXPECT_EQ(whole.status, qvrcs_tool::kExitBadInput);
  EXPECT_NE(whole.err.find("choose one with --block 0..5"), std::string::npos) << whole.err;
  const ToolRun upload = RunTool({"explain", Path("upload.bin")});
  EXPECT_EQ(upload.status, qvrcs_tool::kExitOk);
  const std::string header =
      Path("upload.bin") + ": upload; descriptor id 0x10015100, size 61664, offset 0, device 0x80000003; ";
  EXPECT_EQ(upload.out.rfind(header, 0), 0u) << upload.out.substr(0, 200);
}

TEST_F(OutcomeTest, DumpJsonThenEncodeKeepsEveryByteOfAString) {
  Qvrcs tuning = GoodTuning();
  SettingsOf(tuning).set_version("1.01.00\xff");
  PostmixOf(tuning).mutable_frontroom(0)->set_uuid("a\\xFF\\\\b");  // backslashes that look like escapes
  const std::string file = Write("odd.bin", tuning.SerializeAsString());
  Write("odd.json", RunTool({"dump", "--json", file}).out);
  ASSERT_EQ(RunTool({"encode", Path("odd.json"), "-o", Path("again.bin")}).status, qvrcs_tool::kExitOk);
  EXPECT_TRUE(ReadFile(Path("again.bin")) == ReadFile(file));
}

}  // namespace
