// The command line of qvrcs: one function per command, each printing text
// or (--json) one JSON document on standard output, and one-line errors.
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/json_util.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <sstream>

#include "configurator/payload.h"
#include "qvrcs/qvrcs.h"
#include "tools/qvrcs/analysis.h"
#include "tools/qvrcs/check.h"
#include "tools/qvrcs/explain.h"
#include "tools/qvrcs/report.h"
#include "tools/qvrcs/tool.h"
#include "tools/qvrcs/tuning.h"

namespace qvrcs_tool {
namespace {

using Json = nlohmann::ordered_json;

struct Streams {
  std::ostream& out;
  std::ostream& err;

  // "qvrcs: SUBJECT: what" on the error stream.
  void Error(const std::string& subject, const std::string& what) const {
    err << "qvrcs: " << (subject.empty() ? "" : subject + ": ") << what << "\n";
  }
};

bool WriteFile(const std::string& path, const std::string& bytes, std::string& error) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (!file) {
    error = std::string("cannot write: ") + std::strerror(errno);
    return false;
  }
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  if (!file) {
    error = "cannot write";
    return false;
  }
  return true;
}

std::string StatusLine(int32_t status) {
  return std::to_string(status) + " (" + QVRCS_StatusText(status) + ")";
}

// ---- check -------------------------------------------------------------------

struct CheckOptions {
  std::string dir;
  bool json = false;
  bool warningsOk = false;
  bool verbose = false;
};

int CheckCommand(const CheckOptions& o, const Streams& s) {
  struct stat info {};
  if (stat(o.dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    s.Error(o.dir, stat(o.dir.c_str(), &info) != 0 ? std::string("cannot open: ") + std::strerror(errno)
                                                   : "not a directory");
    return kExitBadInput;
  }
  const CheckReport report = Check(o.dir);
  const bool failed = report.Failures() > 0;
  const bool warned = report.Warnings() > 0;
  const int status = failed || (warned && !o.warningsOk) ? kExitFindings : kExitOk;

  if (o.json) {
    Json j;
    j["search_path"] = report.searchPath;
    j["stored_search_path"] = report.storedPath;
    j["config"] = {{"path", report.configPath}, {"ok", report.configOk}, {"errors", report.configErrors}};
    Json slots = Json::array();
    for (const SlotReport& slot : report.slots) {
      Json js = {{"slot", slot.slot},
                 {"cache_block", slot.index},
                 {"file", slot.filename},
                 {"path", slot.path},
                 {"device_bitmask", slot.deviceBitmask},
                 {"loaded", slot.loaded},
                 {"reader_status", slot.readerStatus},
                 {"parsed", slot.parsed},
                 {"premix_status", slot.premixStatus},
                 {"postmix_status", slot.postmixStatus}};
      if (!slot.loaded) {
        js["meaning"] = slot.meaning;
        js["culprit"] = slot.culprit;
      }
      if (o.verbose) js["log"] = slot.log;
      slots.push_back(js);
    }
    j["slots"] = slots;
    Json warnings = Json::array();
    for (const CheckWarning& w : report.warnings) {
      warnings.push_back({{"slot", w.slot},
                          {"file", w.file},
                          {"level", w.note ? "note" : "warning"},
                          {"code", w.code},
                          {"message", w.message}});
    }
    j["warnings"] = warnings;
    j["failures"] = report.Failures();
    j["warning_count"] = report.Warnings();
    j["exit_status"] = status;
    s.out << j.dump(2) << "\n";
    return status;
  }

  s.out << "search path " << report.searchPath << " (the configurator stores it as " << report.storedPath
        << ")\n";
  if (!report.configOk) {
    for (const std::string& e : report.configErrors) s.out << "error: " << e << "\n";
    s.out << "the configurator would log \"*** Error parsing ConfiguratorConfig protocol buffer ***\" or fail "
             "to open it, and load no slot\n";
  }
  for (const SlotReport& slot : report.slots) {
    char bitmask[16];
    std::snprintf(bitmask, sizeof bitmask, "0x%X", slot.deviceBitmask);
    s.out << std::left << std::setw(11) << slot.slot << std::setw(22) << slot.filename;
    if (slot.loaded) {
      s.out << "loaded";
    } else {
      s.out << "FAILS: reader " << slot.readerStatus << ", " << slot.meaning;
    }
    s.out << std::right << "\n";
    if (!slot.loaded && !slot.culprit.empty()) s.out << "           cause: " << slot.culprit << "\n";
    if (o.verbose) {
      s.out << "           cache block " << slot.index << ", devices " << bitmask << ", " << slot.path << "\n";
      std::istringstream log(slot.log);
      for (std::string line; std::getline(log, line);) s.out << "           log: " << line << "\n";
    }
  }
  for (const CheckWarning& w : report.warnings) {
    if (w.note && !o.verbose) continue;
    s.out << (w.note ? "note: " : "warning: ") << (w.slot.empty() ? "" : w.slot + " " + w.file + ": ") << w.message
          << " [" << w.code << "]\n";
  }
  if (report.configOk) {
    const size_t loaded = report.slots.size() - report.Failures();
    s.out << loaded << " of " << report.slots.size() << " slots load";
  } else {
    s.out << "configurator.cfg fails";
  }
  s.out << ", " << report.Warnings() << " warning" << (report.Warnings() == 1 ? "" : "s") << "\n";
  return status;
}

// ---- explain / diff ------------------------------------------------------------

std::string KindOf(const View& v) { return v.isPayload ? "payload" : "tuning"; }

std::string Outcome(const View& v) {
  if (v.isPayload) return "origins are relative to the templates";
  if (!v.converted) return "the configurator would not upload it: " + v.failure;
  if (v.premixStatus == 0 && v.postmixStatus == 0) return "premix 0, postmix 0: the configurator uploads it";
  return "premix " + std::to_string(v.premixStatus) + ", postmix " + StatusLine(v.postmixStatus) +
         ": the configurator would not upload it; blocks shown as the converters left them" +
         (v.failure.empty() ? "" : "\n  cause: " + v.failure);
}

Json RowJson(const Row& r) {
  Json j = {{"block", r.block},
            {"name", r.name},
            {"offset", r.offset},
            {"payload_offset", r.payloadOffset},
            {"size", r.size},
            {"width", r.width},
            {"origin", r.origin}};
  if (r.isField) j["value"] = r.value;
  if (!r.holds.empty()) j["holds"] = r.holds;
  if (!r.source.empty()) j["source"] = r.source;
  if (!r.note.empty()) j["note"] = r.note;
  return j;
}

Json ViewJson(const View& v) {
  Json j = {{"file", v.path}, {"kind", KindOf(v)}};
  if (!v.isPayload) {
    j["converted"] = v.converted;
    j["premix_status"] = v.premixStatus;
    j["postmix_status"] = v.postmixStatus;
    j["loads"] = v.converted && v.premixStatus == 0 && v.postmixStatus == 0;
    if (!v.failure.empty()) j["failure"] = v.failure;
  }
  return j;
}

void PrintRow(std::ostream& out, const Row& r) {
  out << std::right << std::setw(6) << r.offset << " ";
  if (r.isField) {
    out << std::setw(2) << r.width << "  " << std::left << std::setw(44) << r.name << std::right
        << std::setw(11) << r.value << "  " << r.origin;
    if (!r.note.empty()) out << " (" << r.note << ")";
    out << "\n";
    return;
  }
  out << std::setw(5) << r.size << "B  " << std::left << std::setw(22) << r.name << std::right << r.origin;
  if (!r.source.empty()) out << "  " << r.source;
  out << "\n";
  if (!r.note.empty()) out << "              " << r.note << "\n";
  out << "              holds " << r.holds << "\n";
}

void PrintHeading(std::ostream& out, const std::string& block, const std::string& last) {
  if (block == last) return;
  if (block == "premix") {
    out << "premix block (" << qvrcs::kPremixBlockSize << " bytes at payload offset " << qvr::kPremixPayloadOffset
        << ")\n";
  } else if (block == "postmix") {
    out << "postmix block (" << qvrcs::kPostmixBlockSize << " bytes at payload offset "
        << qvr::kPostmixPayloadOffset << ")\n";
  } else {
    out << "payload\n";
  }
}

struct ExplainOptions {
  std::string file;
  bool json = false;
  bool payload = false;
  bool changed = false;
};

bool Read(const std::string& path, bool payload, Input& input, const Streams& s) {
  std::string error;
  if (ReadInput(path, payload ? InputKind::kPayload : InputKind::kAuto, input, error)) return true;
  s.Error(path, error);
  return false;
}

int ExplainCommand(const ExplainOptions& o, const Streams& s) {
  Input input;
  if (!Read(o.file, o.payload, input, s)) return kExitBadInput;
  const View view = BuildView(input);
  auto shown = [&](const Row& r) { return !o.changed || (r.origin != "template" && r.origin != "zero"); };
  if (o.json) {
    Json j = ViewJson(view);
    Json rows = Json::array();
    for (const Row& r : view.rows) {
      if (shown(r)) rows.push_back(RowJson(r));
    }
    j["rows"] = rows;
    s.out << j.dump(2) << "\n";
    return kExitOk;
  }
  s.out << view.path << ": " << KindOf(view) << " file; " << Outcome(view) << "\n";
  std::string last;
  for (const Row& r : view.rows) {
    if (!shown(r)) continue;
    PrintHeading(s.out, r.block, last);
    last = r.block;
    PrintRow(s.out, r);
  }
  return kExitOk;
}

struct DiffOptions {
  std::string a;
  std::string b;
  bool json = false;
  bool payload = false;
};

int DiffCommand(const DiffOptions& o, const Streams& s) {
  Input a;
  Input b;
  const bool readA = Read(o.a, o.payload, a, s);
  const bool readB = Read(o.b, o.payload, b, s);
  if (!readA || !readB) return kExitBadInput;
  const View va = BuildView(a);
  const View vb = BuildView(b);
  const auto diffs = DiffViews(va, vb);
  if (o.json) {
    Json j = {{"a", ViewJson(va)}, {"b", ViewJson(vb)}};
    Json rows = Json::array();
    for (const auto& [ra, rb] : diffs) {
      const RowDifference d = CompareRow(va, vb, ra);
      Json row = {{"block", ra.block}, {"name", ra.name}, {"offset", ra.offset}, {"size", ra.size},
                  {"width", ra.width}, {"values_differing", d.values}, {"values", d.total},
                  {"first_offset", d.firstOffset}, {"a", RowJson(ra)}, {"b", RowJson(rb)}};
      rows.push_back(row);
    }
    j["differences"] = rows;
    s.out << j.dump(2) << "\n";
    return diffs.empty() ? kExitOk : kExitFindings;
  }
  s.out << "a: " << va.path << ": " << KindOf(va) << " file; " << Outcome(va) << "\n";
  s.out << "b: " << vb.path << ": " << KindOf(vb) << " file; " << Outcome(vb) << "\n";
  std::string last;
  for (const auto& [ra, rb] : diffs) {
    PrintHeading(s.out, ra.block, last);
    last = ra.block;
    if (ra.isField) {
      s.out << std::setw(6) << ra.offset << " " << std::setw(2) << ra.width << "  " << std::left << std::setw(44)
            << ra.name << std::right << std::setw(11) << ra.value << " (" << ra.origin << ") -> " << rb.value
            << " (" << rb.origin << ")\n";
      continue;
    }
    const RowDifference d = CompareRow(va, vb, ra);
    s.out << std::setw(6) << ra.offset << " " << std::setw(5) << ra.size << "B  " << std::left << std::setw(22)
          << ra.name << std::right << d.values << " of " << d.total << " values differ, the first at byte "
          << d.firstOffset << "\n";
    for (const Row* r : {&ra, &rb}) {
      s.out << "              " << (r == &ra ? "a: " : "b: ") << r->origin
            << (r->source.empty() ? "" : " " + r->source) << (r->note.empty() ? "" : "; " + r->note) << "\n"
            << "                 holds " << r->holds << "\n";
    }
  }
  s.out << diffs.size() << (diffs.size() == 1 ? " field or section differs" : " fields or sections differ")
        << "\n";
  return diffs.empty() ? kExitOk : kExitFindings;
}

// ---- convert -------------------------------------------------------------------

struct ConvertOptions {
  std::string file;
  std::string output;
  bool json = false;
};

int ConvertCommand(const ConvertOptions& o, const Streams& s) {
  std::string error;
  if (!CheckFile(o.file, error)) {
    s.Error(o.file, error);
    return kExitBadInput;
  }
  const ReaderRun run = RunReader(o.file);
  const Conversion& conversion = *run.conversion;
  const bool parsed = conversion.reading->stage != qvr::ReaderStage::kUnparsable;
  std::string problem;
  if (conversion.readerStatus != 0) {
    const std::string cause = DiagnoseFailure(conversion.reading->message, conversion);
    problem = "the configurator would not upload it (reader " + std::to_string(conversion.readerStatus) +
              ", premix " + std::to_string(conversion.premixStatus()) + ", postmix " +
              std::to_string(conversion.postmixStatus()) + ")" + (cause.empty() ? "" : ": " + cause);
  } else if (!parsed) {
    problem = "does not parse as a tuning file: the configurator uploads this all-zero payload and logs no error";
  }
  const bool write = conversion.readerStatus == 0;
  if (write && !WriteFile(o.output, std::string(run.payload.begin(), run.payload.end()), error)) {
    s.Error(o.output, error);
    return kExitBadInput;
  }
  if (o.json) {
    Json j = {{"file", o.file},     {"output", write ? Json(o.output) : Json(nullptr)},
              {"bytes", write ? run.payload.size() : 0}, {"reader_status", conversion.readerStatus},
              {"parsed", parsed}};
    if (!problem.empty()) j["problem"] = problem;
    s.out << j.dump(2) << "\n";
  } else if (write) {
    s.out << o.file << " -> " << o.output << ": " << run.payload.size() << " bytes, reader status " << conversion.readerStatus
          << "\n";
  }
  if (!problem.empty()) {
    s.Error(o.file, problem);
    return kExitFindings;
  }
  return kExitOk;
}

// ---- dump / encode -------------------------------------------------------------

struct DumpOptions {
  std::string file;
  std::string output;
  bool json = false;
};

int DumpCommand(const DumpOptions& o, const Streams& s) {
  Input input;
  std::string error;
  if (!ReadInput(o.file, InputKind::kTuning, input, error)) {
    s.Error(o.file, error);
    return kExitBadInput;
  }
  std::string text;
  if (o.json) {
    google::protobuf::util::JsonPrintOptions options;
    options.add_whitespace = true;
    options.preserve_proto_field_names = true;
    if (!google::protobuf::util::MessageToJsonString(*input.tuning, &text, options).ok()) {
      s.Error(o.file, "cannot be written as JSON");
      return kExitBadInput;
    }
  } else {
    google::protobuf::TextFormat::Printer printer;
    // Fields this schema does not know could not be encoded back.
    printer.SetHideUnknownFields(true);
    printer.PrintToString(*input.tuning, &text);
    if (!input.tuning->GetReflection()->GetUnknownFields(*input.tuning).empty()) {
      s.Error(o.file, "warning: holds fields this schema does not know; they are left out");
    }
  }
  if (o.output.empty() || o.output == "-") {
    s.out << text;
    return kExitOk;
  }
  if (!WriteFile(o.output, text, error)) {
    s.Error(o.output, error);
    return kExitBadInput;
  }
  return kExitOk;
}

// Text-format errors as "qvrcs: FILE:line:column: message".
class TextErrors : public google::protobuf::io::ErrorCollector {
 public:
  TextErrors(const std::string& path, const Streams& s) : path_(path), s_(s) {}
  void AddError(int line, int column, const std::string& message) override {
    s_.Error(line < 0 ? path_ : path_ + ":" + std::to_string(line + 1) + ":" + std::to_string(column + 1), message);
  }
  void AddWarning(int line, int column, const std::string& message) override {
    s_.Error(path_ + ":" + std::to_string(line + 1) + ":" + std::to_string(column + 1), "warning: " + message);
  }

 private:
  std::string path_;
  const Streams& s_;
};

struct EncodeOptions {
  std::string text;
  std::string output;
  bool json = false;
};

int EncodeCommand(const EncodeOptions& o, const Streams& s) {
  std::string text;
  std::string error;
  if (!ReadBytes(o.text, text, error)) {
    s.Error(o.text, error);
    return kExitBadInput;
  }
  Qvrcs message;
  TextErrors errors(o.text, s);
  google::protobuf::TextFormat::Parser parser;
  parser.RecordErrorsTo(&errors);
  if (!parser.ParseFromString(text, &message)) return kExitBadInput;
  std::string bytes;
  if (!message.SerializeToString(&bytes)) {
    s.Error(o.text, "cannot be encoded");
    return kExitBadInput;
  }
  if (!WriteFile(o.output, bytes, error)) {
    s.Error(o.output, error);
    return kExitBadInput;
  }
  if (o.json) {
    s.out << Json{{"text", o.text}, {"output", o.output}, {"bytes", bytes.size()}}.dump(2) << "\n";
  } else {
    s.out << o.text << " -> " << o.output << ": " << bytes.size() << " bytes\n";
  }
  return kExitOk;
}

int RunCommands(const std::vector<std::string>& args, const Streams& s) {
  CLI::App app{"Checks, explains, converts, diffs, dumps and encodes tuning files with the configurator's own "
               "reader and converters.",
               "qvrcs"};
  app.require_subcommand(1);
  app.footer(
      "Exit status: 0 success; 1 check found a failing slot or a warning, diff found differences, or convert\n"
      "found a file the configurator would not upload (or uploads blank); 2 bad command line; 3 an input is\n"
      "missing, unreadable or of the wrong kind.\n"
      "A payload file (explain, diff) is a file of exactly 61664 bytes that does not parse as a tuning file,\n"
      "or any file given with --payload.");

  CheckOptions check;
  CLI::App* checkCmd = app.add_subcommand("check", "Check a search path: configurator.cfg and every slot's file");
  checkCmd->add_option("DIR", check.dir, "search path holding configurator.cfg")->required();
  checkCmd->add_flag("--json", check.json, "machine-readable output");
  checkCmd->add_flag("--warnings-ok", check.warningsOk, "exit 0 when every slot loads, even with warnings");
  checkCmd->add_flag("-v,--verbose", check.verbose, "show the reader's log lines and notes");

  ExplainOptions explain;
  CLI::App* explainCmd = app.add_subcommand("explain", "Every field of the premix and postmix blocks of a file");
  explainCmd->add_option("FILE", explain.file, "tuning file or payload file")->required();
  explainCmd->add_flag("--json", explain.json, "machine-readable output");
  explainCmd->add_flag("--payload", explain.payload, "take FILE as a cache block payload");
  explainCmd->add_flag("--changed", explain.changed, "only what differs from the templates");

  DiffOptions diff;
  CLI::App* diffCmd = app.add_subcommand("diff", "Fields and sections that differ between two files");
  diffCmd->add_option("A", diff.a, "tuning file or payload file")->required();
  diffCmd->add_option("B", diff.b, "tuning file or payload file")->required();
  diffCmd->add_flag("--json", diff.json, "machine-readable output");
  diffCmd->add_flag("--payload", diff.payload, "take both files as cache block payloads");

  ConvertOptions convert;
  CLI::App* convertCmd = app.add_subcommand("convert", "Write the 61664-byte payload the configurator uploads");
  convertCmd->add_option("FILE", convert.file, "tuning file")->required();
  convertCmd->add_option("-o,--output", convert.output, "payload file to write")->required();
  convertCmd->add_flag("--json", convert.json, "machine-readable output");

  DumpOptions dump;
  CLI::App* dumpCmd = app.add_subcommand("dump", "Print a tuning file in protobuf text format");
  dumpCmd->add_option("FILE", dump.file, "tuning file")->required();
  dumpCmd->add_option("-o,--output", dump.output, "write the text here instead of standard output");
  dumpCmd->add_flag("--json", dump.json, "print the message as JSON instead of text format");

  EncodeOptions encode;
  CLI::App* encodeCmd = app.add_subcommand("encode", "Encode a text-format tuning file into its binary form");
  encodeCmd->add_option("TEXT", encode.text, "text-format tuning file")->required();
  encodeCmd->add_option("-o,--output", encode.output, "tuning file to write")->required();
  encodeCmd->add_flag("--json", encode.json, "machine-readable output");

  FilterCommands filters;
  AddFilterCommands(app, filters);

  std::vector<std::string> reversed(args.rbegin(), args.rend());
  try {
    app.parse(reversed);
  } catch (const CLI::CallForHelp&) {
    s.out << app.help();
    return kExitOk;
  } catch (const CLI::CallForAllHelp&) {
    s.out << app.help("", CLI::AppFormatMode::All);
    return kExitOk;
  } catch (const CLI::ParseError& e) {
    s.Error("", std::string(e.what()) + " (see qvrcs --help)");
    return kExitUsage;
  }

  if (checkCmd->parsed()) return CheckCommand(check, s);
  if (explainCmd->parsed()) return ExplainCommand(explain, s);
  if (diffCmd->parsed()) return DiffCommand(diff, s);
  if (convertCmd->parsed()) return ConvertCommand(convert, s);
  if (dumpCmd->parsed()) return DumpCommand(dump, s);
  if (const int status = RunFilterCommands(filters, s.out, s.err); status >= 0) return status;
  return EncodeCommand(encode, s);
}

}  // namespace

int Run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  const Streams s{out, err};
  // Our own code throws nothing; the libraries (allocation, CLI11, JSON) may.
  try {
    return RunCommands(args, s);
  } catch (const std::exception& e) {
    s.Error("", std::string("internal error: ") + e.what());
    return kExitBadInput;
  }
}

}  // namespace qvrcs_tool
