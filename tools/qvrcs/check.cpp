#include "tools/qvrcs/check.h"

#include <google/protobuf/io/tokenizer.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "audioroute.pb.h"
#include "configurator.pb.h"
#include "configurator/config_file.h"
#include "configurator/korva_driver.h"
#include "configurator/settings.h"
#include "qvrcs/qvrcs.h"
#include "tools/qvrcs/analysis.h"
#include "tools/qvrcs/io.h"
#include "tools/qvrcs/tuning.h"

namespace qvrcs_tool {
namespace {

using com::qvr::pb::wbn::AudioRoute;

using com::qvr::korva::configurator::qdsp6::ConfiguratorConfig;

// Collects the parser's complaints as "file:line:column: message" (1-based).
class ConfigErrors : public google::protobuf::io::ErrorCollector {
 public:
  ConfigErrors(std::string path, std::vector<std::string>& out) : path_(std::move(path)), out_(out) {}

  void AddError(int line, int column, const std::string& message) override {
    Add(line, column, message);
  }
  void AddWarning(int line, int column, const std::string& message) override {
    Add(line, column, "warning: " + message);
  }

 private:
  void Add(int line, int column, const std::string& message) {
    if (line < 0) {
      out_.push_back(path_ + ": " + message);
    } else {
      out_.push_back(path_ + ":" + std::to_string(line + 1) + ":" + std::to_string(column + 1) + ": " +
                     message);
    }
  }

  std::string path_;
  std::vector<std::string>& out_;
};

// The outputs each slot's tuning is made for, as routes and the matching
// output_device numbers: a file named for another output loads just as well
// but tunes the wrong one.
struct SlotRoutes {
  const char* slot;
  std::vector<AudioRoute> routes;
};
const SlotRoutes kSlotRoutes[] = {
    {"attached0", {com::qvr::pb::wbn::AR_OUT_ATTACHED0}},
    {"attached1", {com::qvr::pb::wbn::AR_OUT_ATTACHED1}},
    {"lineout0", {com::qvr::pb::wbn::AR_OUT_LINEOUT}},
    {"bluetooth0", {com::qvr::pb::wbn::AR_OUT_BLUETOOTH}},
    {"combo0", {com::qvr::pb::wbn::AR_OUT_COMBO}},
    {"other", {com::qvr::pb::wbn::AR_OUT_DIGITAL, com::qvr::pb::wbn::AR_OUT_ATTACHED2,
               com::qvr::pb::wbn::AR_OUT_DEFAULT}},
};

// What of the file's route and output devices does not fit `slot`; "" when all fits.
std::string RouteMismatch(const std::string& slot, const Conversion& conversion) {
  const SlotRoutes* wanted = nullptr;
  for (const SlotRoutes& entry : kSlotRoutes) {
    if (slot == entry.slot) wanted = &entry;
  }
  if (wanted == nullptr || !conversion.selected()) return {};
  auto fits = [&](int value) {
    return std::any_of(wanted->routes.begin(), wanted->routes.end(), [&](AudioRoute r) { return r == value; });
  };
  std::string misfits;
  auto add = [&](const std::string& what) { misfits += (misfits.empty() ? "" : ", ") + what; };
  const AudioRoute route = conversion.reading->message.workspace(0).routeconfiguration(0).route();
  if (!fits(route)) add("route " + com::qvr::pb::wbn::AudioRoute_Name(route));
  const KorvaSettings& settings = conversion.settings();
  if (settings.premix().has_output_device() && !fits(settings.premix().output_device())) {
    add("premix.output_device " + std::to_string(settings.premix().output_device()));
  }
  if (settings.postmix().has_output_device() && !fits(settings.postmix().output_device())) {
    add("postmix.output_device " + std::to_string(settings.postmix().output_device()));
  }
  if (misfits.empty()) return {};
  std::string expected;
  for (const AudioRoute r : wanted->routes) {
    expected += (expected.empty() ? "" : " or ") + com::qvr::pb::wbn::AudioRoute_Name(r) + " (" +
                std::to_string(static_cast<int>(r)) + ")";
  }
  return misfits + " of another output than " + slot + ", which takes " + expected +
         ": the DSP applies this tuning to " + slot;
}

void CheckSlot(SlotReport& slot, CheckReport& report) {
  auto warn = [&](const char* code, std::string message, bool note) {
    report.warnings.push_back(CheckWarning{slot.slot, slot.filename, code, std::move(message), note});
  };

  std::string error;
  struct stat info {};
  if (stat(slot.path.c_str(), &info) == 0 && !CheckRegularFile(slot.path, error)) {
    // A FIFO, a device or a huge file: the reader would wait or read without end.
    slot.readerStatus = qvr::kReaderFailed;
    slot.meaning = "the tuning file is not a regular file of a size the reader can take";
    slot.culprit = slot.path + ": " + error;
    return;
  }
  const ReaderRun run = RunReader(slot.path);
  const Conversion& conversion = *run.conversion;
  slot.readerStatus = conversion.readerStatus;
  slot.log = conversion.log;
  slot.loaded = conversion.readerStatus == 0;

  const qvr::ReaderStage stage = conversion.reading->stage;
  if (stage == qvr::ReaderStage::kCannotOpen || stage == qvr::ReaderStage::kUnparsable) {
    std::string bytes;
    if (!ReadRegularFile(slot.path, bytes, error)) {
      if (slot.loaded) {
        warn("unparsable",
             slot.path + " " + error + ": the configurator uploads a blank payload and logs no error", false);
      } else {
        slot.meaning = "the tuning file could not be opened";
        slot.culprit = slot.path + ": " + error;
      }
    } else {
      warn("unparsable", "does not parse as a tuning file: the configurator uploads a blank (all-zero) "
                         "payload and logs no error",
           false);
    }
    return;
  }
  slot.parsed = true;
  slot.premixStatus = conversion.premixStatus();
  slot.postmixStatus = conversion.postmixStatus();
  if (!slot.loaded) {
    if (!conversion.selected()) {
      slot.meaning = "nothing to convert";
    } else {
      const int32_t failing = slot.postmixStatus != 0 ? slot.postmixStatus : slot.premixStatus;
      slot.meaning = std::string(slot.postmixStatus != 0 ? "postmix " : "premix ") + std::to_string(failing) +
                     ": " + qvrcs::QVRCS_StatusText(failing);
    }
    slot.culprit = DiagnoseFailure(conversion);
  }
  for (const Warning& w : FindSuspicious(conversion)) warn(w.code.c_str(), w.message, w.note);
  const std::string route = RouteMismatch(slot.slot, conversion);
  if (!route.empty()) warn("route", route, false);
}

}  // namespace

size_t CheckReport::Failures() const {
  size_t failures = configOk ? 0 : 1;
  for (const SlotReport& slot : slots) failures += slot.loaded ? 0 : 1;
  return failures;
}

size_t CheckReport::Warnings() const {
  size_t count = 0;
  for (const CheckWarning& w : warnings) count += w.note ? 0 : 1;
  return count;
}

CheckReport CheckFile(const std::string& path, const std::string& shown) {
  CheckReport report;
  report.searchPath = shown;
  report.configOk = true;
  SlotReport slot;
  slot.slot = "-";
  slot.filename = shown.substr(shown.rfind('/') + 1);
  slot.path = path;
  CheckSlot(slot, report);
  report.slots.push_back(slot);
  return report;
}

CheckReport Check(const std::string& dir, const std::string& devicePath) {
  CheckReport report;
  report.searchPath = dir;
  // The configurator joins its argument to an empty stored path: the result
  // is always rooted at "/".
  report.storedPath = qvr::JoinPath("", devicePath);
  if (devicePath.empty() || devicePath.front() != '/') {
    report.warnings.push_back(CheckWarning{
        "", "", "relative-path",
        "device search path \"" + devicePath + "\" is relative: the configurator roots it at \"/\" and would read " +
            qvr::JoinPath(report.storedPath, qvr::kConfigFileName),
        false});
  }

  report.configPath = qvr::JoinPath(dir, qvr::kConfigFileName);
  ConfiguratorConfig config;
  ConfigErrors collector(report.configPath, report.configErrors);
  switch (qvr::ReadConfiguratorConfig(report.configPath, config, &collector)) {
    case qvr::ConfigRead::kCannotOpen:
      report.configErrors.push_back(report.configPath + ": cannot open: " + std::strerror(errno));
      return report;
    case qvr::ConfigRead::kBadSyntax:
      if (report.configErrors.empty()) report.configErrors.push_back(report.configPath + ": does not parse");
      return report;
    case qvr::ConfigRead::kOk:
      report.configOk = true;
      break;
  }

  size_t index = 0;
  for (const qvr::ConfigSlot& entry : qvr::kConfigSlots) {
    const auto& set = (config.*entry.get)();
    SlotReport slot;
    slot.slot = entry.name;
    slot.index = index;
    slot.filename = set.filename();
    slot.path = qvr::JoinPath(dir, set.filename());
    slot.deviceBitmask = qvr_slot_bitmask(static_cast<uint32_t>(index), set.device_bitmask());
    CheckSlot(slot, report);
    report.slots.push_back(slot);
    ++index;
  }
  return report;
}

}  // namespace qvrcs_tool
