#include "tools/qvrcs/report.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <map>

#include "configurator.pb.h"
#include "configurator/config_file.h"
#include "configurator/payload.h"
#include "configurator/settings.h"
#include "qvrcs/qvrcs.h"
#include "qvrcs/record_layout.h"
#include "qvrcs/trace.h"
#include "tools/qvrcs/analysis.h"
#include "tools/qvrcs/check.h"
#include "tools/qvrcs/explain.h"
#include "tools/qvrcs/inputs.h"
#include "tools/qvrcs/io.h"
#include "tools/qvrcs/plot.h"
#include "tools/qvrcs/tool.h"

namespace qvrcs_tool {
namespace {

using com::qvr::pb::model::headphoneEq;

// What the block alone does not say, from the conversion's trace: which
// locator's record reached each room and headphone-EQ slot, how many values
// its table held, where the record ends and what was cut or wrapped.
std::vector<SlotFacts> FactsOf(const Conversion& conversion) {
  std::vector<SlotFacts> facts(FilterSections().size());
  for (SlotFacts& f : facts) {
    f.known = true;
    if (!conversion.selected()) f.notes.push_back(conversion.SelectError());
  }
  if (!conversion.selected()) return facts;
  const Analysis analysis = Analyse(conversion);
  const qvrcs::SectionId slots[] = {qvrcs::SectionId::kMultichRoom, qvrcs::SectionId::kFrontRoom,
                                    qvrcs::SectionId::kWideRoom, qvrcs::SectionId::kHeadphoneEq};
  static_assert(std::size(slots) == 4, "three rooms and the headphone EQ, in block order");
  for (size_t i = 0; i < facts.size(); ++i) {
    SlotFacts& f = facts[i];
    const std::vector<LocatorOutcome>* walk = &analysis.Walk(slots[i]);
    const LocatorOutcome* chosen = analysis.Chosen(slots[i]);
    if (!walk->empty() && walk->back().status != qvrcs::QVRCS_OK) f.outcome = walk->back().what;
    if (!conversion.ok()) {
      f.notes.push_back("the conversion fails (premix " + std::to_string(conversion.premixStatus()) + ", postmix " +
                        std::to_string(conversion.postmixStatus()) + "): the configurator would not upload it");
    }
    f.written = chosen != nullptr;
    if (!f.written) continue;
    f.source = chosen->locator + ": " + chosen->firstRecord;
    f.values = chosen->count;
    f.end = chosen->end;
    f.fileLength = chosen->ihpirLength;
    if (!chosen->wrap.empty()) f.notes.push_back("values wrap to 16 bits");
    if (chosen->taps > 0) {
      f.notes.push_back("ihpirLength " + std::to_string(chosen->ihpirLength) + " cut to " +
                        std::to_string(chosen->taps) + " taps per channel");
    }
    f.notes.insert(f.notes.end(), chosen->overruns.begin(), chosen->overruns.end());
    const auto* eq = slots[i] == qvrcs::SectionId::kHeadphoneEq ? static_cast<const headphoneEq*>(chosen->record)
                                                                 : nullptr;
    if (eq != nullptr && eq->has_supplementaldata()) {
      const auto& db = eq->supplementaldata().responsedb();
      f.measuredDb.assign(db.begin(), db.end());
    }
  }
  return facts;
}

constexpr const char* kStyle =
    "body{font-family:sans-serif;margin:1.5em;color:#111}"
    "table{border-collapse:collapse;margin:.5em 0}td,th{border:1px solid #bbb;padding:.2em .5em;text-align:left;"
    "vertical-align:top;font-size:90%}th{background:#eee}.fails{color:#a00;font-weight:bold}.loaded{color:#070}"
    ".warning{color:#a50}.note{color:#555}code{font-size:95%}.plot svg{max-width:100%;height:auto}"
    "figure{margin:.5em 0}";

// The slot's outcome as check words it.
std::string Status(const SlotReport& slot) {
  return std::string("<span class=\"") + (slot.outcome == SlotOutcome::kLoaded ? "loaded" : "fails") + "\">" +
         EscapeHtml(OutcomeText(slot)) + "</span>";
}

// `svg` with its ids (and the references to them) prefixed, so that the
// drawings on one page do not take each other's clipping paths.
std::string UniqueIds(std::string svg, const std::string& prefix) {
  for (const char* pattern : {"id=\"", "url(#"}) {
    const std::string from = pattern;
    for (size_t at = svg.find(from); at != std::string::npos; at = svg.find(from, at + from.size() + prefix.size())) {
      svg.insert(at + from.size(), prefix);
    }
  }
  return svg;
}

// The explain summary of the sections past the control section, and the plots.
std::string FileSection(const std::string& path, int& figure) {
  LoadedInput loaded;
  std::string error;
  LoadOptions options;
  options.format = Format::kBinary;  // named by configurator.cfg: read as the device reads it
  if (!LoadInput(path, options, std::cin, loaded, error)) {
    return "<p class=\"fails\">" + EscapeHtml(error) + "</p>\n";
  }
  std::string html;
  std::unique_ptr<Conversion> conversion;
  const View view = BuildView(loaded.input, &conversion);
  html += "<table><tr><th>offset</th><th>bytes</th><th>section</th><th>origin</th><th>source</th><th>what</th></tr>\n";
  for (const Row& r : view.rows) {
    if (r.isField || r.block != "postmix") continue;
    html += "<tr><td>" + std::to_string(r.offset) + "</td><td>" + std::to_string(r.size) + "</td><td>" +
            EscapeHtml(r.name) + "</td><td>" + EscapeHtml(r.origin) + "</td><td>" + EscapeHtml(r.source) +
            "</td><td>" + EscapeHtml(r.note) + "</td></tr>\n";
  }
  html += "</table>\n";

  // The plots of the same conversion (a payload file: its blocks as they stand).
  const std::vector<FilterResponse> filters =
      conversion != nullptr ? FiltersOf(*conversion, {}) : FiltersOf(loaded.input, {});
  std::string svg;
  if (!DrawSvg({PlotFile{path, filters}}, svg, error)) return html + "<p class=\"fails\">" + EscapeHtml(error) + "</p>\n";
  html += "<figure class=\"plot\">" + UniqueIds(svg, "p" + std::to_string(++figure) + "-") + "<figcaption>";
  for (const FilterResponse& f : filters) {
    html += "<div><code>" + EscapeHtml(f.section) + "</code>: " +
            EscapeHtml(f.facts.source.empty() ? "nothing loaded" : f.facts.source) + "; " + EscapeHtml(f.header);
    for (const std::string& p : f.problems) html += "; " + EscapeHtml(p);
    for (const std::string& n : f.facts.notes) html += "; " + EscapeHtml(n);
    if (!f.facts.outcome.empty()) html += "; last locator: " + EscapeHtml(f.facts.outcome);
    html += "</div>";
  }
  return html + "</figcaption></figure>\n";
}

std::string DirSection(const std::string& dir, int& figure) {
  std::string html = "<section><h2>" + EscapeHtml(dir) + "</h2>\n";
  const CheckReport report = Check(dir);
  if (!report.configOk) {
    html += "<p class=\"fails\">configurator.cfg fails: the configurator loads no slot</p><ul>";
    for (const std::string& e : report.configErrors) html += "<li>" + EscapeHtml(e) + "</li>";
    return html + "</ul></section>\n";
  }
  html += "<p>search path " + EscapeHtml(report.searchPath) + " (stored as " + EscapeHtml(report.storedPath) +
          "): " + std::to_string(report.slots.size() - report.Failures()) + " of " +
          std::to_string(report.slots.size()) + " slots load, " + std::to_string(report.Warnings()) +
          " warnings</p>\n<table><tr><th>slot</th><th>file</th><th>outcome</th><th>cause</th></tr>\n";
  for (const SlotReport& slot : report.slots) {
    html += "<tr><td>" + EscapeHtml(slot.slot) + "</td><td>" + EscapeHtml(slot.filename) + "</td><td>" +
            Status(slot) + "</td><td>" + EscapeHtml(slot.culprit) + "</td></tr>\n";
  }
  html += "</table>\n";
  if (!report.warnings.empty()) {
    html += "<ul>\n";
    for (const CheckWarning& w : report.warnings) {
      html += std::string("<li class=\"") + (w.note ? "note\">note" : "warning\">warning") + ": " +
              EscapeHtml(w.slot.empty() ? "" : w.slot + " " + w.file + ": ") + EscapeHtml(w.message) + " [" +
              EscapeHtml(w.code) + "]</li>\n";
    }
    html += "</ul>\n";
  }
  std::map<std::string, bool> shown;
  for (const SlotReport& slot : report.slots) {
    if (shown[slot.path]) continue;
    shown[slot.path] = true;
    html += "<h3>" + EscapeHtml(slot.filename) + " <small>(" + EscapeHtml(slot.slot) + ")</small></h3>\n" +
            FileSection(slot.path, figure);
  }
  return html + "</section>\n";
}

int PlotCommand(const FilterCommands& c, const Streams& s) {
  const std::vector<std::string> known = FilterSections();
  std::vector<std::string> files;
  std::vector<std::string> sections;
  for (const std::string& arg : c.plotArgs) {
    (std::find(known.begin(), known.end(), arg) != known.end() ? sections : files).push_back(arg);
  }
  if (files.empty() || files.size() > 2) {
    s.Error("", "plot takes one file, or two to draw over each other (see qvrcs plot --help)");
    return kExitUsage;
  }
  std::string format;
  if (!PictureFormat(c.plotFormat, c.output, format)) {
    s.Error("", c.output == "-" ? "plot -o - needs --format svg or png (see qvrcs plot --help)"
                                : c.output + ": the output must end in .svg or .png, or give --format svg or png");
    return kExitUsage;
  }
  std::string error;
  if (c.output != "-" && !CheckOutput(c.output, files, error)) {
    s.Error(Shown(c.output), error);
    return kExitBadInput;
  }
  LoadOptions options;
  options.block = c.block;
  std::vector<PlotFile> drawn;
  for (const std::string& path : files) {
    LoadedInput loaded;
    if (!LoadInput(path, options, s.in, loaded, error)) {
      s.Error("", Located(Shown(path), error));
      return kExitBadInput;
    }
    drawn.push_back(PlotFile{path, FiltersOf(loaded.input, sections)});
  }
  std::string picture;
  if (!DrawPicture(drawn, format, picture, error)) {
    s.Error(Shown(c.output), error);
    return kExitBadInput;
  }
  if (!s.Output(c.output, picture, files)) return kExitBadInput;
  const size_t count = drawn[0].filters.size();
  s.Status(c.output + ": " + std::to_string(count) + " section" + (count == 1 ? "" : "s") +
           (drawn.size() > 1 ? " of two files" : ""));
  return kExitOk;
}

// What a report reads of the search path `dir`: its configurator.cfg and the
// files it names.
std::vector<std::string> SetFiles(const std::string& dir) {
  std::vector<std::string> files = {qvr::JoinPath(dir, qvr::kConfigFileName)};
  com::qvr::korva::configurator::qdsp6::ConfiguratorConfig config;
  if (qvr::ReadConfiguratorConfig(files[0], config, nullptr) != qvr::ConfigRead::kOk) return files;
  for (const qvr::ConfigSlot& slot : qvr::kConfigSlots) files.push_back(qvr::JoinPath(dir, (config.*slot.get)().filename()));
  return files;
}

int ReportCommand(const FilterCommands& c, const Streams& s) {
  std::string error;
  std::vector<std::string> inputs;
  for (const std::string& dir : c.dirs) {
    if (!CheckRegularFile(qvr::JoinPath(dir, qvr::kConfigFileName), error)) {
      s.Error(dir, "no " + std::string(qvr::kConfigFileName) + " to read: " + error);
      return kExitBadInput;
    }
    const std::vector<std::string> files = SetFiles(dir);
    inputs.insert(inputs.end(), files.begin(), files.end());
  }
  if (c.reportOutput != "-" && !CheckOutput(c.reportOutput, inputs, error)) {
    s.Error(Shown(c.reportOutput), error);
    return kExitBadInput;
  }
  if (!s.Output(c.reportOutput, ReportPage(c.dirs), inputs)) return kExitBadInput;
  s.Status(c.reportOutput + ": " + std::to_string(c.dirs.size()) + " search path" + (c.dirs.size() == 1 ? "" : "s"));
  return kExitOk;
}

}  // namespace

std::vector<FilterResponse> FiltersOf(Input& input, const std::vector<std::string>& sections) {
  if (input.isPayload) {
    auto block = std::make_unique<qvrcs::PostmixBlock>();
    std::copy(input.payload.begin() + static_cast<long>(qvr::kPostmixPayloadOffset),
              input.payload.begin() + static_cast<long>(qvr::kPostmixPayloadOffset + block->size()), block->begin());
    return Responses(*block, {}, qvr::kDspSampleRate, sections);
  }
  return FiltersOf(*Convert(input), sections);
}

std::vector<FilterResponse> FiltersOf(const Conversion& conversion, const std::vector<std::string>& sections) {
  return Responses(conversion.reading->postmix, FactsOf(conversion), qvr::kDspSampleRate, sections);
}

std::string EscapeHtml(const std::string& text) {
  std::string escaped;
  for (char ch : text) {
    switch (ch) {
      case '&': escaped += "&amp;"; break;
      case '<': escaped += "&lt;"; break;
      case '>': escaped += "&gt;"; break;
      case '"': escaped += "&quot;"; break;
      case '\'': escaped += "&#39;"; break;
      default: escaped += ch;
    }
  }
  return escaped;
}

std::string ReportPage(const std::vector<std::string>& dirs) {
  std::string html =
      "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
      "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src 'unsafe-inline'; "
      "img-src data:\">\n<title>qvrcs report</title>\n<style>";
  html += kStyle;
  html += "</style></head><body>\n<h1>qvrcs report</h1>\n";
  int figure = 0;
  for (const std::string& dir : dirs) html += DirSection(dir, figure);
  return html + "</body></html>\n";
}

void AddFilterCommands(CLI::App& app, FilterCommands& c) {
  c.plot = app.add_subcommand("plot", "Impulse and magnitude responses of the rooms and the headphone EQ");
  c.plot->add_option("FILES", c.plotArgs,
                     "a tuning or payload file, or two drawn over each other; then section names to draw "
                     "(multich_room front_room wide_room hpeq; default all)")
      ->required();
  c.plot->add_option("-o,--output", c.output, "picture to write, .svg or .png; - for standard output (with --format)")
      ->required();
  c.plot->add_option("--format", c.plotFormat, "the picture's format, svg or png (default: by the output's name)")
      ->check(CLI::IsMember({"svg", "png"}));
  c.plot->add_option("--block", c.block, "the block of a driver cache dump, 0 to 5")->check(CLI::Range(0, 5));
  c.report = app.add_subcommand("report", "One self-contained HTML page for search paths: check, explain, plots");
  c.report->add_option("DIR", c.dirs, "search paths holding configurator.cfg")->required();
  c.report->add_option("-o,--output", c.reportOutput, "page to write, - for standard output")->required();
}

int RunFilterCommands(const FilterCommands& c, const Streams& s) {
  if (c.plot != nullptr && c.plot->parsed()) return PlotCommand(c, s);
  if (c.report != nullptr && c.report->parsed()) return ReportCommand(c, s);
  return -1;
}

}  // namespace qvrcs_tool
