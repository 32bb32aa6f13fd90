// Loading the device's tuning into the driver cache: "configurator.cfg" names
// one tuning file and device bitmask for each of the six output slots; each
// slot's tuning is converted and uploaded into its own cache block.
#pragma once

#include <cstdint>
#include <string>

// The process-wide driver handle. Every driver request goes to it; it is -1
// between failed open attempts.
extern int32_t g_fd;

namespace qvr {

// Results of the application's routines.
constexpr int32_t kResultOk = 0;
constexpr int32_t kResultSlotFailed = -1;      // one or more slots failed
constexpr int32_t kResultDriverRefused = -2;   // the driver refused a request
constexpr int32_t kResultNoMemory = -3;        // an allocation failed
constexpr int32_t kResultNoFile = -4;          // a file could not be opened
constexpr int32_t kResultBadConfig = -5;       // "configurator.cfg" does not parse

constexpr const char* kConfigFileName = "configurator.cfg";

}  // namespace qvr

// Fixes the search path, sizes the driver cache and uploads every slot named
// in the search path's "configurator.cfg". Every slot is attempted. Returns
// kResultOk, kResultSlotFailed when any slot failed, kResultDriverRefused when
// the cache could not be sized, kResultNoFile or kResultBadConfig when the
// configuration cannot be opened or parsed.
int32_t load_settings(const char* searchPath);

// Uploads the tuning file `qvrcsPath` into cache block `cacheBlockIndex`
// for the devices of `bitmask`.
int32_t load_one_qvrcs_set(const char* qvrcsPath, uint32_t bitmask, int32_t cacheBlockIndex);

// The stored search path, then "/" unless it already ends in one, then `name`.
std::string join_search_path(const std::string& name);
