// The command line of qvrcs: one function per command, each printing text
// or (--json) one JSON document on standard output, status lines and
// one-line errors on standard error.
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/json_util.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <iomanip>
#include <thread>

#include "configurator/payload.h"
#include "qvrcs/qvrcs.h"
#include "tools/qvrcs/analysis.h"
#include "tools/qvrcs/batch.h"
#include "tools/qvrcs/check_command.h"
#include "tools/qvrcs/command.h"
#include "tools/qvrcs/explain.h"
#include "tools/qvrcs/inputs.h"
#include "tools/qvrcs/io.h"
#include "tools/qvrcs/report.h"
#include "tools/qvrcs/section_json.h"
#include "tools/qvrcs/tool.h"
#include "tools/qvrcs/tuning.h"

namespace qvrcs_tool {
namespace {

// Reads one input as `options` say; false after a one-line error.
bool Load(const std::string& path, const LoadOptions& options, LoadedInput& loaded, const Streams& s) {
  std::string error;
  if (LoadInput(path, options, s.in, loaded, error)) return true;
  s.Error("", Located(Shown(path), error));
  return false;
}

// The --format of a tuning file's form, checked on the command line (a usage error).
CLI::Validator TuningFormat() {
  return CLI::Validator(
      [](std::string& name) {
        Format format = Format::kAuto;
        return ParseFormat(name, format) ? std::string() : "takes auto, binary, text or json, not \"" + name + "\"";
      },
      "auto|binary|text|json");
}

std::string StatusLine(int32_t status) {
  return std::to_string(status) + " (" + qvrcs::QVRCS_StatusText(status) + ")";
}

// ---- explain / diff ------------------------------------------------------------

std::string Hex32(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", value);
  return text;
}

std::string Outcome(const LoadedInput& in, const View& v) {
  std::string text = v.path + ": " + in.form;
  if (in.hasDescriptor) {
    text += "; descriptor id " + Hex32(in.descriptorId) + ", size " + std::to_string(in.descriptorSize) +
            ", offset " + std::to_string(in.descriptorOffset) + ", device " + Hex32(in.descriptorDevice);
  }
  if (v.isPayload) return text + "; origins are relative to the templates";
  if (!v.converted) return text + "; the configurator would not upload it: " + v.failure;
  if (v.premixStatus == 0 && v.postmixStatus == 0) return text + "; premix 0, postmix 0: the configurator uploads it";
  return text + "; premix " + std::to_string(v.premixStatus) + ", postmix " + StatusLine(v.postmixStatus) +
         ": the configurator would not upload it; blocks shown as the converters left them" +
         (v.failure.empty() ? "" : "\n  cause: " + v.failure);
}

Json WarningsJson(const std::vector<Warning>& warnings) {
  Json list = Json::array();
  for (const Warning& w : warnings) {
    list.push_back({{"level", w.note ? "note" : "warning"}, {"code", w.code}, {"message", w.message}, {"at", w.at}});
  }
  return list;
}

std::string WarningLine(const Warning& w) { return (w.note ? "note: " : "warning: ") + w.message + " [" + w.code + "]"; }

// A row as data; a section's bytes decoded into `data`.
Json RowJson(const View& v, const Row& r) {
  Json j = {{"block", r.block},
            {"name", r.name},
            {"offset", r.offset},
            {"payload_offset", r.payloadOffset},
            {"size", r.size},
            {"width", r.width},
            {"origin", r.origin}};
  if (r.isField) j["value"] = r.value;
  const Json data = SectionData(v.payload, r);
  if (!data.is_null()) j["data"] = data;
  if (!r.source.empty()) j["source"] = r.source;
  if (!r.note.empty()) j["note"] = r.note;
  if (!r.warnings.empty()) j["warnings"] = WarningsJson(r.warnings);
  return j;
}

Json ViewJson(const LoadedInput& in, const View& v) {
  Json j = {{"file", v.path}, {"kind", v.isPayload ? "payload" : "tuning"}, {"form", in.form}};
  if (in.hasDescriptor) {
    j["descriptor"] = {{"id", in.descriptorId},
                       {"size", in.descriptorSize},
                       {"offset", in.descriptorOffset},
                       {"device", in.descriptorDevice}};
  }
  if (!v.isPayload) {
    j["converted"] = v.converted;
    j["premix_status"] = v.premixStatus;
    j["postmix_status"] = v.postmixStatus;
    j["loads"] = v.converted && v.premixStatus == 0 && v.postmixStatus == 0;
    if (!v.failure.empty()) j["failure"] = v.failure;
    j["warnings"] = WarningsJson(v.warnings);
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
    for (const Warning& w : r.warnings) out << "              " << WarningLine(w) << "\n";
    return;
  }
  out << std::setw(5) << r.size << "B  " << std::left << std::setw(22) << r.name << std::right << r.origin;
  if (!r.source.empty()) out << "  " << r.source;
  out << "\n";
  if (!r.note.empty()) out << "              " << r.note << "\n";
  out << "              holds " << r.holds << "\n";
  for (const Warning& w : r.warnings) out << "              " << WarningLine(w) << "\n";
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

// How explain and diff read their inputs.
struct ViewOptions {
  std::string format = "auto";
  bool payload = false;
  int block = -1;

  bool Load(const std::string& path, LoadedInput& loaded, const Streams& s) const {
    LoadOptions options;
    options.deviceSide = payload;
    options.block = block;
    ParseFormat(format, options.format);  // checked on the command line
    return qvrcs_tool::Load(path, options, loaded, s);
  }
};

struct ExplainOptions {
  std::string file;
  ViewOptions view;
  bool json = false;
  bool changed = false;
};

int ExplainCommand(const ExplainOptions& o, const Streams& s) {
  LoadedInput input;
  if (!o.view.Load(o.file, input, s)) return kExitBadInput;
  const View view = BuildView(input.input);
  auto shown = [&](const Row& r) {
    return !o.changed || (r.origin != "template" && r.origin != "zero") || !r.warnings.empty();
  };
  // A tuning file the configurator would not upload is a finding, as for convert.
  const bool loads = view.isPayload || (view.converted && view.premixStatus == 0 && view.postmixStatus == 0);
  const int status = loads ? kExitOk : kExitFindings;
  if (o.json) {
    Json j = Document("explain");
    const Json about = ViewJson(input, view);
    for (const auto& [key, value] : about.items()) j[key] = value;
    Json rows = Json::array();
    for (const Row& r : view.rows) {
      if (shown(r)) rows.push_back(RowJson(view, r));
    }
    j["rows"] = rows;
    s.out << JsonText(j) << "\n";
    return status;
  }
  s.out << Outcome(input, view) << "\n";
  for (const Warning& w : view.warnings) {
    if (w.at.empty()) s.out << WarningLine(w) << "\n";
  }
  std::string last;
  for (const Row& r : view.rows) {
    if (!shown(r)) continue;
    PrintHeading(s.out, r.block, last);
    last = r.block;
    PrintRow(s.out, r);
  }
  return status;
}

struct DiffOptions {
  std::string a;
  std::string b;
  ViewOptions view;
  bool json = false;
};

int DiffCommand(const DiffOptions& o, const Streams& s) {
  if (o.a == "-" && o.b == "-") {
    s.Error("", "only one input can be standard input (see qvrcs diff --help)");
    return kExitUsage;
  }
  LoadedInput a;
  LoadedInput b;
  const bool readA = o.view.Load(o.a, a, s);
  const bool readB = o.view.Load(o.b, b, s);
  if (!readA || !readB) return kExitBadInput;
  const View va = BuildView(a.input);
  const View vb = BuildView(b.input);
  const auto diffs = DiffViews(va, vb);
  const std::vector<Warning> onlyA = WarningsOnlyIn(va, vb);
  const std::vector<Warning> onlyB = WarningsOnlyIn(vb, va);
  const int status = diffs.empty() && onlyA.empty() && onlyB.empty() ? kExitOk : kExitFindings;
  if (o.json) {
    Json j = Document("diff");
    j["a"] = ViewJson(a, va);
    j["b"] = ViewJson(b, vb);
    Json rows = Json::array();
    for (const auto& [ra, rb] : diffs) {
      const RowDifference d = CompareRow(va, vb, ra);
      Json row = {{"block", ra.block}, {"name", ra.name}, {"offset", ra.offset}, {"size", ra.size},
                  {"width", ra.width}, {"values_differing", d.values}, {"values", d.total},
                  {"first_offset", d.firstOffset}, {"a", RowJson(va, ra)}, {"b", RowJson(vb, rb)}};
      rows.push_back(row);
    }
    j["differences"] = rows;
    j["warnings_only_in_a"] = WarningsJson(onlyA);
    j["warnings_only_in_b"] = WarningsJson(onlyB);
    s.out << JsonText(j) << "\n";
    return status;
  }
  s.out << "a: " << Outcome(a, va) << "\n";
  s.out << "b: " << Outcome(b, vb) << "\n";
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
  for (const Warning& w : onlyA) s.out << "a only: " << WarningLine(w) << "\n";
  for (const Warning& w : onlyB) s.out << "b only: " << WarningLine(w) << "\n";
  s.out << diffs.size() << (diffs.size() == 1 ? " field or section differs" : " fields or sections differ");
  const size_t differing = onlyA.size() + onlyB.size();
  if (differing > 0) s.out << ", " << differing << (differing == 1 ? " warning differs" : " warnings differ");
  s.out << "\n";
  return status;
}

// ---- convert -------------------------------------------------------------------

// How convert, dump and encode read a tuning file.
struct TuningOptions {
  std::string format = "auto";

  bool Load(const std::string& path, LoadedInput& loaded, const Streams& s) const {
    LoadOptions options;
    options.tuningOnly = true;
    ParseFormat(format, options.format);  // checked on the command line
    return qvrcs_tool::Load(path, options, loaded, s);
  }
};

struct ConvertOptions {
  std::string file;
  std::string output;
  TuningOptions tuning;
  bool json = false;
};

int ConvertCommand(const ConvertOptions& o, const Streams& s) {
  if (o.json && o.output == "-") {
    s.Error("", "--json writes to standard output: give the payload a file with -o (see qvrcs convert --help)");
    return kExitUsage;
  }
  std::string bytes;
  std::string error;
  if (!ReadInput(o.file, s.in, bytes, error)) {
    s.Error(Shown(o.file), error);
    return kExitBadInput;
  }
  Format format = Format::kAuto;
  ParseFormat(o.tuning.format, format);  // checked on the command line
  std::string readerPath;
  TempFile copy;
  if (!ReaderInput(o.file, bytes, format, copy, readerPath, error)) {
    s.Error("", Located(Shown(o.file), error));
    return kExitBadInput;
  }
  const ReaderRun run = RunReader(readerPath);
  const Conversion& conversion = *run.conversion;
  const bool parsed = conversion.reading->stage != qvr::ReaderStage::kUnparsable;
  std::string problem;
  if (conversion.readerStatus != 0) {
    const std::string cause = DiagnoseFailure(conversion);
    problem = "the configurator would not upload it (reader " + std::to_string(conversion.readerStatus) +
              ", premix " + std::to_string(conversion.premixStatus()) + ", postmix " +
              std::to_string(conversion.postmixStatus()) + ")" + (cause.empty() ? "" : ": " + cause);
  } else if (!parsed) {
    problem = kUnparsableTuning + (error.empty() ? "" : "\n  " + Located(Shown(o.file), error));
  }
  const bool write = conversion.readerStatus == 0;
  if (write && !s.Output(o.output, std::string(run.payload.begin(), run.payload.end()), {o.file})) {
    return kExitBadInput;
  }
  if (o.json) {
    Json j = Document("convert");
    j["file"] = o.file;
    j["output"] = write ? Json(o.output) : Json(nullptr);
    j["bytes"] = write ? run.payload.size() : 0;
    j["reader_status"] = conversion.readerStatus;
    j["parsed"] = parsed;
    if (!problem.empty()) j["problem"] = problem;
    s.out << JsonText(j) << "\n";
  } else if (write) {
    s.Status(Shown(o.file) + " -> " + o.output + ": " + std::to_string(run.payload.size()) + " bytes, reader status " +
             std::to_string(conversion.readerStatus));
  }
  if (!problem.empty()) {
    s.Error(Shown(o.file), problem);
    return kExitFindings;
  }
  return kExitOk;
}

// ---- dump / encode -------------------------------------------------------------

struct DumpOptions {
  std::string file;
  std::string output;
  TuningOptions tuning;
  bool json = false;
};

int DumpCommand(const DumpOptions& o, const Streams& s) {
  LoadedInput input;
  if (!o.tuning.Load(o.file, input, s)) return kExitBadInput;
  Qvrcs& message = input.input.reading->message;
  std::string text;
  if (o.json) {
    google::protobuf::util::JsonPrintOptions options;
    options.add_whitespace = true;
    options.preserve_proto_field_names = true;
    EscapeStringsForJson(message);
    if (!google::protobuf::util::MessageToJsonString(message, &text, options).ok()) {
      s.Error(Shown(o.file), "cannot be written as JSON");
      return kExitBadInput;
    }
  } else {
    google::protobuf::TextFormat::Printer printer;
    // Fields this schema does not know could not be encoded back.
    printer.SetHideUnknownFields(true);
    // Repeated numbers on one line: a headphone file stays a few hundred lines.
    printer.SetUseShortRepeatedPrimitives(true);
    printer.PrintToString(message, &text);
    if (!message.GetReflection()->GetUnknownFields(message).empty()) {
      s.Error(Shown(o.file), "warning: holds fields this schema does not know; they are left out");
    }
  }
  if (message.ByteSizeLong() == 0) s.Error(Shown(o.file), "note: an empty message, no field is set");
  return s.Output(o.output.empty() ? "-" : o.output, text, {o.file}) ? kExitOk : kExitBadInput;
}

struct EncodeOptions {
  std::string text;
  std::string output;
  TuningOptions tuning;
  bool json = false;
};

int EncodeCommand(const EncodeOptions& o, const Streams& s) {
  if (o.json && o.output == "-") {
    s.Error("", "--json writes to standard output: give the tuning file a name with -o (see qvrcs encode --help)");
    return kExitUsage;
  }
  LoadedInput input;
  if (!o.tuning.Load(o.text, input, s)) return kExitBadInput;
  std::string bytes;
  if (!input.input.reading->message.SerializeToString(&bytes)) {
    s.Error(Shown(o.text), "cannot be encoded");
    return kExitBadInput;
  }
  if (bytes.empty()) s.Error(Shown(o.text), "note: an empty message: the tuning file written is 0 bytes");
  if (!s.Output(o.output, bytes, {o.text})) return kExitBadInput;
  if (o.json) {
    Json j = Document("encode");
    j["text"] = o.text;
    j["output"] = o.output;
    j["bytes"] = bytes.size();
    s.out << JsonText(j) << "\n";
  } else {
    s.Status(Shown(o.text) + " -> " + o.output + ": " + std::to_string(bytes.size()) + " bytes");
  }
  return kExitOk;
}

// ---- the command line ------------------------------------------------------------

constexpr const char* kExitStatusText =
    "Exit status: 0 success; 1 check found a failing slot, a slot that uploads a blank block or a warning, diff\n"
    "found differences, or explain or convert found a file the configurator would not upload (convert: or\n"
    "uploads blank); 2 bad command line; 3 an input is missing, unreadable or of the wrong kind, or an output\n"
    "cannot be written. FILE may be \"-\" for standard input, and -o - writes to standard output. An output that\n"
    "is a regular file (or a new name) is written whole or not at all, and never over an input; a device, FIFO\n"
    "or /dev/stdout is written in place; links are followed and stay links. Tuning files are taken in their\n"
    "binary form, in protobuf text format or as the JSON of dump --json, recognised by content (--format).\n"
    "explain, diff and plot also take device-side data: a 61664-byte payload, a 61680-byte upload captured\n"
    "from the driver and a 369984-byte dump of the driver cache (--block N).";

// Edit distance, for suggesting the command meant.
size_t Distance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

// The first argument that is not an option must name a command.
bool KnownCommand(const CLI::App& app, const std::vector<std::string>& args, const Streams& s) {
  for (const std::string& arg : args) {
    if (!arg.empty() && arg[0] == '-') continue;
    std::string nearest;
    size_t best = 3;  // suggest only what is close
    for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
      if (sub->get_name() == arg) return true;
      const size_t d = Distance(arg, sub->get_name());
      if (d < best) {
        best = d;
        nearest = sub->get_name();
      }
    }
    s.Error("", "unknown command \"" + arg + "\"" + (nearest.empty() ? "" : "; did you mean \"" + nearest + "\"?") +
                    " (see qvrcs --help)");
    return false;
  }
  return true;
}

unsigned AllCores() { return std::min(kMaxJobs, std::max(1u, std::thread::hardware_concurrency())); }

int RunCommands(const std::vector<std::string>& args, Streams& s) {
  CLI::App app{"Checks, explains, converts, diffs, dumps and encodes tuning files with the configurator's own "
               "reader and converters.",
               "qvrcs"};
  app.require_subcommand(1);
  app.fallthrough();
  app.set_version_flag("--version", std::string("qvrcs ") + QVRCS_VERSION);
  app.set_help_all_flag("--help-all", "every command's help");
  app.add_flag("-q,--quiet", s.quiet, "no status lines or reports: errors and the exit status only");

  CheckOptions check;
  check.batch.jobs = AllCores();
  CLI::App* checkCmd = app.add_subcommand(
      "check", "Check search paths (folders with configurator.cfg) and single tuning files, as the configurator "
               "would load them");
  checkCmd->add_option("INPUT", check.inputs, "search path holding configurator.cfg, or one tuning file")
      ->required();
  checkCmd->add_flag("--json", check.json, "one JSON document");
  checkCmd->add_flag("--jsonl", check.jsonl, "one JSON line per slot, in input order");
  checkCmd->add_option("-j,--jobs", check.batch.jobs, "inputs checked at once, on as many threads (default: all cores)")
      ->check(CLI::Range(1u, kMaxJobs));
  checkCmd->add_option("--device-path", check.batch.devicePath,
                       "the search path the configurator is given on the device")
      ->capture_default_str();
  checkCmd->add_option("--format", check.format, "single tuning files: auto, binary, text or json")
      ->check(TuningFormat());
  checkCmd->add_flag("--warnings-ok", check.warningsOk, "exit 0 when every slot loads, even with warnings");
  checkCmd->add_flag("-v,--verbose", check.verbose, "show the reader's log lines and notes");
  checkCmd->get_option("--json")->excludes("--jsonl");

  auto addViewOptions = [](CLI::App* cmd, ViewOptions& view) {
    cmd->add_flag("--payload", view.payload, "take the input as device-side data (payload, upload or cache dump)");
    cmd->add_option("--block", view.block, "the block of a driver cache dump, 0 to 5")->check(CLI::Range(0, 5));
    cmd->add_option("--format", view.format, "tuning files: auto, binary, text or json")->check(TuningFormat());
  };

  ExplainOptions explain;
  CLI::App* explainCmd = app.add_subcommand("explain", "Every field of the premix and postmix blocks of a file");
  explainCmd->add_option("FILE", explain.file, "tuning file or device-side data")->required();
  explainCmd->add_flag("--json", explain.json, "one JSON document");
  explainCmd->add_flag("--changed", explain.changed, "only what differs from the templates");
  addViewOptions(explainCmd, explain.view);

  DiffOptions diff;
  CLI::App* diffCmd = app.add_subcommand("diff", "Fields and sections that differ between two files");
  diffCmd->add_option("A", diff.a, "tuning file or device-side data")->required();
  diffCmd->add_option("B", diff.b, "tuning file or device-side data")->required();
  diffCmd->add_flag("--json", diff.json, "one JSON document");
  addViewOptions(diffCmd, diff.view);

  ConvertOptions convert;
  CLI::App* convertCmd = app.add_subcommand("convert", "Write the 61664-byte payload the configurator uploads");
  convertCmd->add_option("FILE", convert.file, "tuning file")->required();
  convertCmd->add_option("-o,--output", convert.output, "payload file to write, - for standard output")->required();
  convertCmd->add_option("--format", convert.tuning.format, "auto, binary, text or json")->check(TuningFormat());
  convertCmd->add_flag("--json", convert.json, "one JSON document");

  DumpOptions dump;
  CLI::App* dumpCmd = app.add_subcommand("dump", "Print a tuning file in protobuf text format");
  dumpCmd->add_option("FILE", dump.file, "tuning file")->required();
  dumpCmd->add_option("-o,--output", dump.output, "write the text here instead of standard output");
  dumpCmd->add_option("--format", dump.tuning.format, "the input's form: auto, binary, text or json")
      ->check(TuningFormat());
  dumpCmd->add_flag("--json", dump.json, "print the message as JSON instead of text format");

  EncodeOptions encode;
  CLI::App* encodeCmd = app.add_subcommand("encode", "Encode a text-format or JSON tuning file into its binary form");
  encodeCmd->add_option("TEXT", encode.text, "text-format or JSON tuning file")->required();
  encodeCmd->add_option("-o,--output", encode.output, "tuning file to write, - for standard output")->required();
  encodeCmd->add_option("--format", encode.tuning.format, "the input's form: auto, text or json")
      ->check(TuningFormat());
  encodeCmd->add_flag("--json", encode.json, "one JSON document");

  FilterCommands filters;
  AddFilterCommands(app, filters);

  // Set last: subcommands created after it would repeat it in their help.
  app.footer(kExitStatusText);

  if (!KnownCommand(app, args, s)) return kExitUsage;
  std::vector<std::string> reversed(args.rbegin(), args.rend());
  try {
    app.parse(reversed);
  } catch (const CLI::CallForHelp&) {
    // The exit status paragraph belongs to the tool's own help only.
    for (CLI::App* sub : app.get_subcommands()) {
      s.out << sub->help();
      return kExitOk;
    }
    s.out << app.help();
    return kExitOk;
  } catch (const CLI::CallForAllHelp&) {
    s.out << app.help("", CLI::AppFormatMode::All);
    return kExitOk;
  } catch (const CLI::CallForVersion& e) {
    s.out << e.what() << "\n";
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
  if (const int status = RunFilterCommands(filters, s); status >= 0) return status;
  return EncodeCommand(encode, s);
}

}  // namespace

int Run(const std::vector<std::string>& args, std::istream& in, std::ostream& out, std::ostream& err) {
  Streams s{in, out, err};
  QuietProtobufLog();  // the tool says what is wrong itself, in its own words
  int status = kExitBadInput;
  // Our own code throws nothing; the libraries (allocation, CLI11, JSON) may.
  try {
    status = RunCommands(args, s);
  } catch (const std::exception& e) {
    s.Error("", std::string("internal error: ") + e.what());
  }
  // Whatever the command found, output that did not arrive is the failure to say.
  return s.Flush() ? status : kExitBadInput;
}

}  // namespace qvrcs_tool
