#include "configurator/settings.h"

#include <google/protobuf/arena.h>

#include <cstdlib>
#include <cstring>
#include <iterator>

#include "configurator.pb.h"
#include "configurator/config_file.h"
#include "configurator/korva_driver.h"
#include "configurator/log.h"
#include "configurator/tuning_reader.h"

using com::qvr::korva::configurator::qdsp6::ConfiguratorConfig;
using com::qvr::korva::configurator::qdsp6::SettingsSet;

int32_t g_fd = 0;

namespace {

// Log lines of this file.
constexpr char kLogLoadSettings[] = "load_settings(%s)";
constexpr char kLogSettingCacheSize[] = "Attempting to set driver cache size to %d";
constexpr char kLogCacheSizeSet[] =
    "After setting driver cache size:  g_fd = %d  cacheSize = %d  retval = %d";
constexpr char kLogNoConfig[] = "Couldn't open config file %s";
constexpr char kLogBadConfig[] = "*** Error parsing ConfiguratorConfig protocol buffer ***";
constexpr char kLogLoadSettingsResult[] = "load_settings() returns %d.";
constexpr char kLogLoadSet[] = "load_one_qvrcs_set() : qvrcsPath = '%s'  cacheBlockIndex = %d";
constexpr char kLogSettingCacheBlock[] = "Setting cache block.";
constexpr char kLogCacheBlock[] =
    "[0]idx=%d  [1]bitmask=0x%X  [2]kGlobalOffset=%d  [3]preCmd=0x%x  [4]preSize=%d  "
    "[5]preOff=%d  [6]fadeCmd=0x%x  [7]fadeSize=%d  [8]postOff=%d  [9]postCmd=0x%x  "
    "[10]postSize=%d  [11]fadeOff=%d  [12]fadeCmd=0x%x  [13]fadeSize=%d";
constexpr char kLogSendingData[] = "Sending data to cache...";
constexpr char kLogNoMemory[] = "Error allocating memory for qvr_korva_param_desc";
constexpr char kLogReaderResult[] = "QVRCS_GetPremixData() returns %d";
constexpr char kLogUploadResult[] = "ioctl(QVR_KORVA_IOCTL_SET_PARAM) returns %d";
constexpr char kLogLoadSetResult[] = "load_one_qvrcs_set() returns %d";

// The six slots of "configurator.cfg", in cache block order.
constexpr const auto& kSlots = qvr::kConfigSlots;

// Set once per load_settings; every file path is formed from it.
std::string g_searchPath;

// Every slot's tuning file is parsed into this one message on an arena, kept
// for the whole run. Each parse clears the message, which keeps its fields'
// storage, so a file parses into the space the previous one grew: no
// allocation, no copy of a growing field, no page touched anew, and nothing
// freed piece by piece. The arena's blocks come from the heap, where the
// start-up's freed memory is reused (a block of the program's own would be
// pages of its own: about 250 kB more resident set for the same work).
com::qvr::pb::wbn::Qvrcs& ParsedTuning() {
  static google::protobuf::Arena arena;
  static auto* message = google::protobuf::Arena::CreateMessage<com::qvr::pb::wbn::Qvrcs>(&arena);
  return *message;
}

void LogCacheBlock(const qvr_korva_cache_block& block) {
  QVR_LOG(kLogCacheBlock, static_cast<int>(block.idx), block.bitmask,
          static_cast<int>(block.kGlobalOffset), block.preCmd, static_cast<int>(block.preSize),
          static_cast<int>(block.preOff), block.preFadeCmd, static_cast<int>(block.preFadeSize),
          static_cast<int>(block.postOff), block.postCmd, static_cast<int>(block.postSize),
          static_cast<int>(block.fadeOff), block.postFadeCmd, static_cast<int>(block.postFadeSize));
}

// The payload bytes the reader's two blocks do not cover go out as zeros: the
// two fade areas when the blocks were converted, the whole payload when the
// file did not parse (nothing converted). Zeroing only these, rather than the
// whole buffer up front, spares writing each payload twice.
void ZeroUnplaced(const qvr::TuningReading& reading, uint8_t* payload) {
  if (reading.stage != qvr::ReaderStage::kConverted) {
    std::memset(payload, 0, qvr::kCacheBlockSize);
    return;
  }
  std::memset(payload + qvr::kPremixFadeOffset, 0, qvr::kFadeAreaSize);
  std::memset(payload + qvr::kPostmixFadeOffset, 0, qvr::kFadeAreaSize);
}

// Parses the configuration file; returns kResultOk, kResultNoFile or kResultBadConfig.
int32_t ReadConfig(const std::string& path, ConfiguratorConfig& config) {
  switch (qvr::ReadConfiguratorConfig(path, config, nullptr)) {
    case qvr::ConfigRead::kCannotOpen:
      QVR_LOG(kLogNoConfig, path.c_str());
      return qvr::kResultNoFile;
    case qvr::ConfigRead::kBadSyntax:
      QVR_LOG(kLogBadConfig);
      return qvr::kResultBadConfig;
    case qvr::ConfigRead::kOk:
      break;
  }
  return qvr::kResultOk;
}

}  // namespace

std::string join_search_path(const std::string& name) {
  return qvr::JoinPath(g_searchPath, name);
}

int32_t load_settings(const char* searchPath) {
  // Joined while the stored path is still empty, so the search path is always
  // rooted at "/": "/etc/qvr" becomes "//etc/qvr", "cfg" becomes "/cfg".
  g_searchPath.clear();
  g_searchPath = join_search_path(searchPath);
  QVR_LOG(kLogLoadSettings, g_searchPath.c_str());

  int32_t result = qvr::kResultOk;
  QVR_LOG(kLogSettingCacheSize, qvr::kDriverCacheSize);
  const int32_t answer = qvr_set_cache_size(g_fd, qvr::kDriverCacheSize);
  if (qvr_answer_refused(QVR_KORVA_IOCTL_SET_CACHE_SIZE, answer)) {
    result = qvr::kResultDriverRefused;
    QVR_LOG(kLogCacheSizeSet, g_fd, qvr::kDriverCacheSize, result);
  } else {
    QVR_LOG(kLogCacheSizeSet, g_fd, qvr::kDriverCacheSize, answer);
    ConfiguratorConfig config;
    result = ReadConfig(join_search_path(qvr::kConfigFileName), config);
    if (result == qvr::kResultOk) {
      int32_t slotResults = 0;
      for (size_t index = 0; index < std::size(kSlots); ++index) {
        const SettingsSet& slot = (config.*kSlots[index].get)();
        slotResults |= load_one_qvrcs_set(join_search_path(slot.filename()).c_str(),
                                          slot.device_bitmask(), static_cast<int32_t>(index));
      }
      result = slotResults != 0 ? qvr::kResultSlotFailed : qvr::kResultOk;
    }
  }
  QVR_LOG(kLogLoadSettingsResult, result);
  return result;
}

int32_t load_one_qvrcs_set(const char* qvrcsPath, uint32_t bitmask, int32_t cacheBlockIndex) {
  QVR_LOG(kLogLoadSet, qvrcsPath, cacheBlockIndex);
  const uint32_t index = static_cast<uint32_t>(cacheBlockIndex);
  const uint32_t slotBitmask = qvr_slot_bitmask(index, bitmask);

  int32_t result = qvr::kResultOk;
  QVR_LOG(kLogSettingCacheBlock);
  const qvr_korva_cache_block block = qvr_make_cache_block(index, slotBitmask);
  LogCacheBlock(block);
  if (qvr_answer_refused(QVR_KORVA_IOCTL_SET_CACHE_BLOCK, qvr_set_cache_block(g_fd, &block))) {
    result = qvr::kResultDriverRefused;
  } else {
    QVR_LOG(kLogSendingData);
    // Every byte is set before it goes out: the descriptor here, the payload
    // by the reader and ZeroUnplaced.
    auto* upload = static_cast<qvr_korva_upload*>(std::malloc(sizeof(qvr_korva_upload)));
    if (upload == nullptr) {
      result = qvr::kResultNoMemory;
      QVR_LOG(kLogNoMemory);
    } else {
      upload->desc.id = PARAM_ID_PREMIX;
      upload->desc.size = static_cast<int32_t>(sizeof(upload->payload));
      upload->desc.offset = 0;
      upload->desc.device = slotBitmask | kDeviceSelectBit;
      {
        // QVRCS_GetPremixData's steps, converting in place, parsing into the
        // run's one message and keeping the reading to tell what was converted.
        qvr::TuningReading reading;
        result = qvr::ReadTuningFileInPlace(qvrcsPath, upload->payload, reading, qvr::AndroidLog(),
                                            &ParsedTuning());
        ZeroUnplaced(reading, upload->payload);
      }
      QVR_LOG(kLogReaderResult, result);
      if (result == qvr::kResultOk) {
        const int32_t answer = qvr_set_param(g_fd, upload);
        QVR_LOG(kLogUploadResult, answer);
        result = qvr_answer_refused(QVR_KORVA_IOCTL_SET_PARAM, answer) ? qvr::kResultDriverRefused : qvr::kResultOk;
      }
      std::free(upload);
    }
  }
  QVR_LOG(kLogLoadSetResult, result);
  return result;
}
