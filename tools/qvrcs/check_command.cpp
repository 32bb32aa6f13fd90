#include "tools/qvrcs/check_command.h"

#include <cstdio>
#include <sstream>

#include "tools/qvrcs/tool.h"

namespace qvrcs_tool {
namespace {

size_t WarningsOf(const CheckReport& report, const SlotReport& slot) {
  size_t count = 0;
  for (const CheckWarning& w : report.warnings) count += !w.note && w.slot == slot.slot ? 1 : 0;
  return count;
}

// Totals over every input.
struct Totals {
  size_t inputs = 0;
  size_t inputErrors = 0;
  size_t configFailures = 0;
  size_t slots = 0;
  size_t loaded = 0;
  size_t blank = 0;
  size_t unchecked = 0;
  size_t warnings = 0;
  int status = kExitOk;

  void Add(const CheckedInput& c, bool warningsOk) {
    ++inputs;
    int inputStatus = kExitOk;
    if (!c.error.empty()) {
      ++inputErrors;
      inputStatus = kExitBadInput;
    } else {
      if (!c.report.configOk) ++configFailures;
      size_t failing = c.report.configOk ? 0 : 1;
      for (const SlotReport& slot : c.report.slots) {
        ++slots;
        loaded += slot.outcome == SlotOutcome::kLoaded ? 1 : 0;
        blank += slot.outcome == SlotOutcome::kBlank ? 1 : 0;
        unchecked += slot.outcome == SlotOutcome::kNotChecked ? 1 : 0;
        failing += slot.outcome == SlotOutcome::kLoaded ? 0 : 1;
      }
      warnings += c.report.Warnings();
      if (failing > 0 || (c.report.Warnings() > 0 && !warningsOk)) inputStatus = kExitFindings;
    }
    status = std::max(status, inputStatus);
  }

  std::string Line() const {
    std::string line = std::to_string(loaded) + " of " + std::to_string(slots) + " slots load";
    if (blank > 0) line += ", " + std::to_string(blank) + " upload" + (blank == 1 ? "s" : "") + " a blank block";
    if (unchecked > 0) line += ", " + std::to_string(unchecked) + " not checked";
    if (configFailures > 0) {
      line += ", " + std::to_string(configFailures) + " configurator.cfg fail" + (configFailures == 1 ? "s" : "");
    }
    if (inputErrors > 0) {
      line += ", " + std::to_string(inputErrors) + " input" + (inputErrors == 1 ? "" : "s") + " not checked";
    }
    return line + ", " + std::to_string(warnings) + " warning" + (warnings == 1 ? "" : "s");
  }
};

// ---- JSON ----------------------------------------------------------------------

Json SlotJson(const CheckReport& report, const SlotReport& slot, bool verbose) {
  Json j = {{"slot", slot.slot},
            {"file", slot.filename},
            {"path", slot.path},
            {"outcome", OutcomeCode(slot.outcome)},
            {"reader_status", slot.readerStatus},
            {"parsed", slot.parsed},
            {"premix_status", slot.premixStatus},
            {"postmix_status", slot.postmixStatus},
            {"warning_count", WarningsOf(report, slot)}};
  if (slot.slot != "-") {
    j["cache_block"] = slot.index;
    j["device_bitmask"] = slot.deviceBitmask;
  }
  if (slot.outcome != SlotOutcome::kLoaded && slot.outcome != SlotOutcome::kBlank) {
    j["meaning"] = slot.meaning;
    j["cause"] = slot.culprit;
  }
  if (verbose) j["log"] = slot.log;
  return j;
}

Json WarningJson(const CheckWarning& w) {
  return Json{{"slot", w.slot.empty() ? Json(nullptr) : Json(w.slot)},
              {"file", w.file},
              {"level", w.note ? "note" : "warning"},
              {"code", w.code},
              {"message", w.message}};
}

Json InputJson(const CheckedInput& c, bool verbose) {
  Json j = {{"input", c.input}, {"kind", c.isSet ? "set" : "file"}};
  if (!c.error.empty()) {
    j["error"] = c.error;
    return j;
  }
  const CheckReport& r = c.report;
  if (c.isSet) {
    j["device_search_path"] = r.storedPath;
    j["config"] = {{"path", r.configPath}, {"ok", r.configOk}, {"errors", r.configErrors}};
  }
  Json slots = Json::array();
  for (const SlotReport& slot : r.slots) slots.push_back(SlotJson(r, slot, verbose));
  j["slots"] = slots;
  Json warnings = Json::array();
  for (const CheckWarning& w : r.warnings) warnings.push_back(WarningJson(w));
  j["warnings"] = warnings;
  return j;
}

// One JSON line per slot; an input that could not be checked, or whose
// configuration file fails, is one line of its own.
void PrintJsonLines(const CheckedInput& c, const Streams& s) {
  auto line = [&](Json record) {
    Json j = {{"format", kJsonFormat}, {"input", c.input}, {"kind", c.isSet ? "set" : "file"}};
    for (auto& [key, value] : record.items()) j[key] = value;
    s.out << JsonText(j, -1) << "\n";
  };
  if (!c.error.empty()) {
    line({{"error", c.error}});
    return;
  }
  const CheckReport& r = c.report;
  Json general = Json::array();
  for (const CheckWarning& w : r.warnings) {
    if (w.slot.empty()) general.push_back(WarningJson(w));
  }
  if (!r.configOk || !general.empty()) {
    line({{"config", {{"path", r.configPath}, {"ok", r.configOk}, {"errors", r.configErrors}}},
          {"warnings", general}});
  }
  for (const SlotReport& slot : r.slots) {
    Json j = SlotJson(r, slot, false);
    Json warnings = Json::array();
    for (const CheckWarning& w : r.warnings) {
      if (w.slot == slot.slot && !w.slot.empty()) warnings.push_back(WarningJson(w));
    }
    j["warnings"] = warnings;
    line(j);
  }
  s.out.flush();
}

// ---- text ----------------------------------------------------------------------

size_t NameWidth(const CheckReport& r) {
  size_t width = 21;
  for (const SlotReport& slot : r.slots) width = std::max(width, DisplayWidth(slot.filename));
  return width;
}

// One input as a table of its slots, its causes and warnings.
void PrintInput(const CheckedInput& c, const CheckOptions& o, const Streams& s) {
  if (!c.error.empty()) {
    s.Error("", c.error);
    return;
  }
  const CheckReport& r = c.report;
  if (c.isSet) {
    s.out << "search path " << r.searchPath << "; on the device " << o.batch.devicePath
          << " (the configurator stores it as " << r.storedPath << ")\n";
  } else {
    s.out << "tuning file " << r.searchPath << ", checked as one slot\n";
  }
  if (!r.configOk) {
    for (const std::string& e : r.configErrors) s.out << "error: " << e << "\n";
    s.out << "the configurator would log \"*** Error parsing ConfiguratorConfig protocol buffer ***\" or fail "
             "to open it, and load no slot\n";
  }
  const size_t width = NameWidth(r);
  for (const SlotReport& slot : r.slots) {
    s.out << PadRight(slot.slot, 10) << PadRight(slot.filename, width) << OutcomeText(slot) << "\n";
    const std::string indent(11, ' ');
    if (!slot.culprit.empty()) s.out << indent << "cause: " << slot.culprit << "\n";
    if (o.verbose) {
      char bitmask[16];
      std::snprintf(bitmask, sizeof bitmask, "0x%X", slot.deviceBitmask);
      if (slot.slot != "-") {
        s.out << indent << "cache block " << slot.index << ", devices " << bitmask << ", " << slot.path << "\n";
      }
      std::istringstream log(slot.log);
      for (std::string line; std::getline(log, line);) s.out << indent << "log: " << line << "\n";
    }
  }
  for (const CheckWarning& w : r.warnings) {
    if (w.note && !o.verbose) continue;
    s.out << (w.note ? "note: " : "warning: ")
          << (w.slot.empty() ? "" : (w.slot == "-" ? "" : w.slot + " ") + w.file + ": ") << w.message << " ["
          << w.code << "]\n";
  }
}

// The summary of many inputs: set x slot x outcome, warnings counted.
struct SummaryRow {
  std::string set;
  std::string slot;
  std::string file;
  std::string outcome;
  size_t warnings = 0;
};

void AddSummaryRows(const CheckedInput& c, std::vector<SummaryRow>& rows) {
  if (!c.error.empty()) {
    rows.push_back({c.input, "", "", "NOT CHECKED", 0});
    return;
  }
  if (!c.report.configOk) rows.push_back({c.input, "", "configurator.cfg", "FAILS", 0});
  for (const SlotReport& slot : c.report.slots) {
    rows.push_back({c.input, slot.slot, slot.filename,
                    slot.outcome == SlotOutcome::kFails    ? "FAILS"
                    : slot.outcome == SlotOutcome::kBlocks ? "BLOCKS"
                                                           : OutcomeText(slot),
                    WarningsOf(c.report, slot)});
  }
}

void PrintSummary(const std::vector<SummaryRow>& rows, const Streams& s) {
  size_t set = 3, slot = 10, file = 4;
  for (const SummaryRow& r : rows) {
    set = std::max(set, DisplayWidth(r.set));
    slot = std::max(slot, DisplayWidth(r.slot));
    file = std::max(file, DisplayWidth(r.file));
  }
  s.out << "summary\n" << PadRight("set", set) << PadRight("slot", slot) << PadRight("file", file)
        << PadRight("outcome", 21) << "warnings\n";
  for (const SummaryRow& r : rows) {
    s.out << PadRight(r.set, set) << PadRight(r.slot, slot) << PadRight(r.file, file) << PadRight(r.outcome, 21)
          << r.warnings << "\n";
  }
}

}  // namespace

int CheckCommand(CheckOptions o, const Streams& s) {
  if (!ParseFormat(o.format, o.batch.format)) {
    s.Error("", "--format takes auto, binary, text or json, not \"" + o.format + "\" (see qvrcs check --help)");
    return kExitUsage;
  }
  Totals totals;
  Json inputs = Json::array();
  std::vector<SummaryRow> summary;
  const bool many = o.inputs.size() > 1;
  CheckInputs(o.inputs, o.batch, s.in, [&](const CheckedInput& c) {
    totals.Add(c, o.warningsOk);
    if (o.jsonl) {
      PrintJsonLines(c, s);
    } else if (o.json) {
      inputs.push_back(InputJson(c, o.verbose));
    } else if (s.quiet) {
      if (!c.error.empty()) s.Error("", c.error);
    } else if (many) {
      AddSummaryRows(c, summary);
      // Above the summary only what needs reading: failures, warnings, errors.
      if (!c.error.empty() || c.report.Failures() > 0 || c.report.Warnings() > 0 || o.verbose) PrintInput(c, o, s);
    } else {
      PrintInput(c, o, s);
    }
  });
  if (o.json) {
    Json j = Document("check");
    j["device_path"] = o.batch.devicePath;
    j["inputs"] = inputs;
    j["summary"] = {{"inputs", totals.inputs},        {"not_checked", totals.inputErrors},
                    {"slots", totals.slots},          {"loaded", totals.loaded},
                    {"blank", totals.blank},          {"not_checked_slots", totals.unchecked},
                    {"failing", totals.slots - totals.loaded - totals.blank - totals.unchecked},
                    {"config_failures", totals.configFailures}, {"warnings", totals.warnings}};
    j["exit_status"] = totals.status;
    s.out << JsonText(j) << "\n";
  } else if (!o.jsonl && !s.quiet && (many || totals.inputErrors == 0)) {
    if (many) PrintSummary(summary, s);
    s.out << (many ? std::to_string(totals.inputs) + " inputs: " : "") << totals.Line() << "\n";
  }
  return totals.status;
}

}  // namespace qvrcs_tool
