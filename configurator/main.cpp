// qvr_configurator: opens the Korva driver, reports the DSP's version, sets
// the volume controls and loads the device's tuning into the driver cache.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "configurator/korva_driver.h"
#include "configurator/log.h"
#include "configurator/settings.h"

namespace {

constexpr int kVersionMajor = 2;
constexpr int kVersionMinor = 21;
constexpr const char* kTargetSchema = "1.1";  // the korva_v1_1 settings
constexpr const char* kDefaultSearchPath = "/etc/qvr";

// Opening the driver: 1002 passes, 100 ms apart; the give-up line names 1000
// as the retry count, which is how the message has always read.
constexpr int kOpenPasses = 1002;
constexpr int kReportedRetryCount = 1000;
constexpr int kRetrySleepMs = 100;

// Log lines of this file.
constexpr char kLogBanner[] = "running qvr_configurator (%li bit): version %d.%d (targeting Korva %s)";
constexpr char kLogSearchPath[] = "Using %s as search path";
// Logged as is, and written to standard output with a final full stop.
constexpr char kLogSecondArgument[] = "Trying to specify second argument to release build. Argument ignored";
constexpr char kLogHardwareOpenFailed[] =
    "Error opening korva DSP driver (errno %i, %s). Attempting to open SOFTWARE driver.";
constexpr char kLogSoftwareOpenGiveUp[] =
    "Error opening korva SOFTWARE driver (errno %i, %s). Max retry count of %d hit. Exiting...";
constexpr char kLogSoftwareOpenRetry[] =
    "Error opening korva SOFTWARE driver (errno %i, %s). Sleeping for %d ms and trying again...";
constexpr char kLogDspVersion[] = "Korva DSP Version = %s";
constexpr char kLogDspVersionFailed[] = "Error %i querying driver for version number";
constexpr char kLogDspDescription[] = "Korva DSP Description = \n%s";
constexpr char kLogDspDescriptionFailed[] = "Error %i querying driver for version description";
constexpr char kLogDriverHandle[] = "Korva driver handle %i.";
constexpr char kLogVolumeFailed[] = "Error setting volume controls.";
constexpr char kLogVolumeSet[] = "Success setting volume controls.";
constexpr char kLogSettingsFailed[] = "Error setting parameters.";
constexpr char kLogSettingsSet[] = "Success setting parameters.";

// Opens the hardware node, falling back to the software node, until one opens
// or the passes run out (then the process ends with status 1).
void OpenDriver() {
  for (int passesLeft = kOpenPasses;;) {
    g_fd = open(kQvrKorvaHardwareNode, O_RDWR);
    if (g_fd >= 0) return;
    int error = errno;
    QVR_LOG(kLogHardwareOpenFailed, error, strerror(error));

    g_fd = open(kQvrKorvaSoftwareNode, O_RDWR);
    if (g_fd >= 0) return;
    error = errno;
    if (--passesLeft == 0) {
      QVR_LOG(kLogSoftwareOpenGiveUp, error, strerror(error), kReportedRetryCount);
      exit(1);
    }
    QVR_LOG(kLogSoftwareOpenRetry, error, strerror(error), kRetrySleepMs);
    usleep(kRetrySleepMs * 1000);
  }
}

// Logs the DSP's version and description; neither failure stops the run.
void ReportDsp() {
  qvr_korva_param_query query{};
  query.desc.id = PARAM_ID_DSP_VERSION;
  query.desc.size = kDspVersionSize;
  query.desc.offset = kDspQueryOffset;
  query.desc.device = kDeviceSelectBit | kDspQueryDevice;
  int32_t result = qvr_get_param(g_fd, &query);
  if (!qvr_answer_refused(QVR_KORVA_IOCTL_GET_PARAM, result)) {
    char version[kDspVersionSize + 1];
    std::memcpy(version, query.reply, kDspVersionSize);
    version[kDspVersionSize] = '\0';
    QVR_LOG(kLogDspVersion, version);
  } else {
    QVR_LOG(kLogDspVersionFailed, result);
  }

  // Same descriptor; only the parameter and its size change.
  query.desc.id = PARAM_ID_DSP_DESCRIPTION;
  query.desc.size = kDspDescriptionSize;
  result = qvr_get_param(g_fd, &query);
  if (!qvr_answer_refused(QVR_KORVA_IOCTL_GET_PARAM, result)) {
    char description[kDspDescriptionSize + 1];
    std::memcpy(description, query.reply, kDspDescriptionSize);
    description[kDspDescriptionSize] = '\0';
    QVR_LOG(kLogDspDescription, description);
  } else {
    QVR_LOG(kLogDspDescriptionFailed, result);
  }
}

}  // namespace

int main(int argc, char** argv) {
  QVR_LOG(kLogBanner, static_cast<long>(sizeof(long) * 8), kVersionMajor, kVersionMinor, kTargetSchema);

  const char* searchPath = kDefaultSearchPath;
  if (argc > 1) {
    searchPath = argv[1];
    QVR_LOG(kLogSearchPath, searchPath);
    // Only exactly one extra argument draws the warning.
    if (argc == 3) {
      QVR_LOG(kLogSecondArgument);
      puts((std::string(kLogSecondArgument) + ".").c_str());
    }
  }

  OpenDriver();
  ReportDsp();
  QVR_LOG(kLogDriverHandle, g_fd);

  if (qvr_answer_refused(QVR_KORVA_IOCTL_SET_VOLUME_CONTROLS, qvr_set_volume_controls(g_fd, 0))) {
    QVR_LOG(kLogVolumeFailed);
  } else {
    QVR_LOG(kLogVolumeSet);
  }

  if (load_settings(searchPath) < 0) {
    QVR_LOG(kLogSettingsFailed);
  } else {
    QVR_LOG(kLogSettingsSet);
  }

  close(g_fd);
  return 0;
}
