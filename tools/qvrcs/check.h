// `qvrcs check DIR`: everything the configurator would do with the search
// path DIR, without a driver.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qvrcs_tool {

// What becomes of a slot on the device.
enum class SlotOutcome : uint8_t {
  kLoaded,      // the reader returns 0 and the file's conversion is uploaded
  kBlank,       // the reader returns 0 without parsing anything: the zero-filled block is uploaded
  kFails,       // the reader returns an error: nothing is uploaded
  kBlocks,      // the reader's open never returns (a FIFO without a writer)
  kNotChecked,  // qvrcs does not read it (too large, a device): the device may well load it
};

struct SlotReport {
  std::string slot;      // attached0 ... other
  size_t index = 0;      // cache block index
  std::string filename;  // as configurator.cfg names it
  std::string path;      // where it was read
  uint32_t deviceBitmask = 0;  // as the configurator sends it (combo bit added)
  int32_t readerStatus = 0;    // the reader's result: what the device logs
  bool parsed = false;         // the file parses as a tuning file
  int32_t premixStatus = 0;
  int32_t postmixStatus = 0;
  SlotOutcome outcome = SlotOutcome::kFails;
  std::string meaning;         // of the failing status, or why the slot blocks or is not checked
  std::string culprit;         // the record that caused the failure
  std::string log;             // the reader's log lines
};

struct CheckWarning {
  std::string slot;  // "" for the search path or configuration file
  std::string file;
  std::string code;
  std::string message;
  bool note = false;
};

struct CheckReport {
  std::string searchPath;   // as given
  std::string storedPath;   // as the configurator stores it
  std::string configPath;
  bool configOk = false;
  std::vector<std::string> configErrors;  // "file:line:column: message"
  std::vector<SlotReport> slots;
  std::vector<CheckWarning> warnings;

  size_t Failures() const;  // configuration file and slots that do not load
  size_t Warnings() const;  // notes excluded
};

// The one account of a slot's outcome that check, its JSON and report give:
// a short code ("loaded", "blank", "fails", "blocks", "not_checked") and the
// text of check's table ("uploads a blank block", "FAILS: reader -4, ...").
const char* OutcomeCode(SlotOutcome outcome);
std::string OutcomeText(const SlotReport& slot);

// The search path the boot service gives the configurator on the device.
constexpr const char* kDevicePath = "/vendor/etc/qvr";

// Reads DIR/configurator.cfg on the host and runs every slot's tuning file
// through the configurator's reader and converters; `devicePath` is the
// search path the configurator will be given on the device.
CheckReport Check(const std::string& dir, const std::string& devicePath = kDevicePath);

// Whether `path` names a configuration file (its name is configurator.cfg):
// then `folder` is the search path that holds it, to be checked as a set.
bool ConfigFileFolder(const std::string& path, std::string& folder);

// One tuning file (binary, as the reader takes it) checked as a slot would
// be, without a configuration file; the slot is named "-", the report's
// search path `shown`. `textError`: why the file, plausibly text, did not
// parse as text either; said under the slot's blank outcome.
CheckReport CheckFile(const std::string& path, const std::string& shown, const std::string& textError = {});

}  // namespace qvrcs_tool
