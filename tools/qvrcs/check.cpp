#include "tools/qvrcs/check.h"

#include <fcntl.h>
#include <google/protobuf/io/tokenizer.h>
#include <sys/stat.h>
#include <unistd.h>

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
#include "tools/qvrcs/inputs.h"
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

// What of the file's route and output devices does not fit `slot`; "" when all fits.
std::string RouteMismatch(const std::string& slot, const Conversion& conversion) {
  const qvr::ConfigSlot* wanted = nullptr;
  for (const qvr::ConfigSlot& entry : qvr::kConfigSlots) {
    if (slot == entry.name) wanted = &entry;
  }
  if (wanted == nullptr || !conversion.selected()) return {};
  const AudioRoute* routes = wanted->routes;
  const AudioRoute* routesEnd = wanted->routes + wanted->routeCount;
  auto fits = [&](int value) { return std::any_of(routes, routesEnd, [&](AudioRoute r) { return r == value; }); };
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
  for (const AudioRoute* r = routes; r != routesEnd; ++r) {
    expected += (expected.empty() ? "" : " or ") + com::qvr::pb::wbn::AudioRoute_Name(*r) + " (" +
                std::to_string(static_cast<int>(*r)) + ")";
  }
  return misfits + " of another output than " + slot + ", which takes " + expected +
         ": the DSP applies this tuning to " + slot;
}

// What the reader's open would do with `path`, before it runs: a FIFO makes
// it wait for a writer for good, a device or a file larger than qvrcs reads
// is not read here. False when the reader can be run.
bool HeldBack(SlotReport& slot) {
  struct stat info {};
  if (stat(slot.path.c_str(), &info) != 0) return false;  // the reader fails to open it, and says so
  if (S_ISFIFO(info.st_mode)) {
    slot.outcome = SlotOutcome::kBlocks;
    slot.meaning = "a FIFO: the configurator would wait in open() for a writer for good and never finish loading";
    return true;
  }
  if (S_ISCHR(info.st_mode) || S_ISBLK(info.st_mode)) {
    slot.outcome = SlotOutcome::kNotChecked;
    slot.meaning = std::string("a ") + (S_ISCHR(info.st_mode) ? "character" : "block") +
                   " device: what the configurator reads from it depends on the device";
    return true;
  }
  if (S_ISREG(info.st_mode) && static_cast<unsigned long long>(info.st_size) > kMaxInputSize) {
    slot.outcome = SlotOutcome::kNotChecked;
    slot.meaning = "larger than qvrcs reads";
    return true;
  }
  return false;
}

// Why the reader read nothing it could parse from `path`.
std::string Unparsable(const SlotReport& slot) {
  struct stat info {};
  const std::string unparsable = std::string(kUnparsableTuning) + " and logs no error";
  if (stat(slot.path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
    return (slot.filename.empty() ? "filename \"\" names the search path itself, a directory, which "
                                  : std::string("is a directory, which ")) +
           unparsable;
  }
  return unparsable;
}

void CheckSlot(SlotReport& slot, CheckReport& report) {
  auto warn = [&](const char* code, std::string message, bool note) {
    report.warnings.push_back(CheckWarning{slot.slot, slot.filename, code, std::move(message), note});
  };
  if (HeldBack(slot)) return;

  const ReaderRun run = RunReader(slot.path);
  const Conversion& conversion = *run.conversion;
  slot.readerStatus = conversion.readerStatus;
  slot.log = conversion.log;

  const qvr::ReaderStage stage = conversion.reading->stage;
  if (stage == qvr::ReaderStage::kCannotOpen) {
    slot.outcome = SlotOutcome::kFails;
    slot.meaning = "the tuning file could not be opened";
    const int fd = open(slot.path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    slot.culprit = slot.path + ": cannot open: " + std::strerror(fd < 0 ? errno : 0);
    if (fd >= 0) close(fd);
    return;
  }
  if (stage == qvr::ReaderStage::kUnparsable) {
    slot.outcome = SlotOutcome::kBlank;
    warn("unparsable", Unparsable(slot), false);
    return;
  }
  slot.parsed = true;
  slot.premixStatus = conversion.premixStatus();
  slot.postmixStatus = conversion.postmixStatus();
  slot.outcome = conversion.readerStatus == 0 ? SlotOutcome::kLoaded : SlotOutcome::kFails;
  if (slot.outcome == SlotOutcome::kFails) {
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
  for (const SlotReport& slot : slots) failures += slot.outcome == SlotOutcome::kLoaded ? 0 : 1;
  return failures;
}

const char* OutcomeCode(SlotOutcome outcome) {
  switch (outcome) {
    case SlotOutcome::kLoaded:
      return "loaded";
    case SlotOutcome::kBlank:
      return "blank";
    case SlotOutcome::kFails:
      return "fails";
    case SlotOutcome::kBlocks:
      return "blocks";
    case SlotOutcome::kNotChecked:
      return "not_checked";
  }
  return "fails";
}

std::string OutcomeText(const SlotReport& slot) {
  switch (slot.outcome) {
    case SlotOutcome::kLoaded:
      return "loaded";
    case SlotOutcome::kBlank:
      return "uploads a blank block";
    case SlotOutcome::kFails:
      return "FAILS: reader " + std::to_string(slot.readerStatus) + ", " + slot.meaning;
    case SlotOutcome::kBlocks:
      return "BLOCKS: " + slot.meaning;
    case SlotOutcome::kNotChecked:
      return "not checked (" + slot.meaning + ")";
  }
  return {};
}

size_t CheckReport::Warnings() const {
  size_t count = 0;
  for (const CheckWarning& w : warnings) count += w.note ? 0 : 1;
  return count;
}

bool ConfigFileFolder(const std::string& path, std::string& folder) {
  const size_t slash = path.rfind('/');
  if (path.substr(slash + 1) != qvr::kConfigFileName) return false;
  struct stat info {};
  if (stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) return false;
  folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  return true;
}

CheckReport CheckFile(const std::string& path, const std::string& shown, const std::string& textError) {
  CheckReport report;
  report.searchPath = shown;
  report.configOk = true;
  SlotReport slot;
  slot.slot = "-";
  slot.filename = shown.substr(shown.rfind('/') + 1);
  slot.path = path;
  CheckSlot(slot, report);
  if (slot.outcome == SlotOutcome::kBlank && !textError.empty()) report.warnings.back().message += "\n  " + textError;
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
