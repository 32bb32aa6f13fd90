// The tuning file reader: parses one tuning file, converts its first
// korva_v1_1 settings into the premix and postmix blocks and places both in
// the cache block payload.
#include "configurator/tuning_reader.h"

#include <cstring>
#include <fstream>

#include "configurator/log.h"
#include "configurator/payload.h"
#include "qvrcs/qvrcs.h"
#include "qvrcsPB.pb.h"

using com::qvr::pb::korva_v1_1::KorvaSettings;
using com::qvr::pb::wbn::Qvrcs;

namespace {

constexpr int32_t kResultOk = 0;
constexpr int32_t kResultFailed = -4;

// Log lines of this file.
constexpr char kLogNullArgument[] = "Error:  filename or outData is NULL";
constexpr char kLogCannotOpen[] = "Error: could not open %s";
constexpr char kLogEmptySelection[] = "Error: %s has no %s";
constexpr char kLogConversionFailed[] = "Error: parsing Pre (res = %i) or Post (res = %i)";

}  // namespace

const KorvaSettings* QVRCS_SelectSettings(const Qvrcs& message, const char** missing) {
  *missing = nullptr;
  if (message.workspace_size() == 0) {
    *missing = "workspace";
    return nullptr;
  }
  const auto& workspace = message.workspace(0);
  if (workspace.routeconfiguration_size() == 0) {
    *missing = "routeConfiguration in workspace 0";
    return nullptr;
  }
  const auto& route = workspace.routeconfiguration(0);
  if (route.tech_size() == 0) {
    *missing = "tech in routeConfiguration 0";
    return nullptr;
  }
  return &route.tech(0).korva_v1_1();
}

int32_t QVRCS_GetPremixData(const char* filename, uint8_t* outData) {
  if (filename == nullptr || outData == nullptr) {
    QVR_LOG(kLogNullArgument);
    return kResultFailed;
  }

  std::ifstream file(filename, std::ios::in | std::ios::binary);
  if (!file.is_open()) {
    QVR_LOG(kLogCannotOpen, filename);
    return kResultFailed;
  }

  Qvrcs message;
  ConversionContext context;
  QVRCS_InitContext(context, qvr::kDspSampleRate);

  // A file that does not parse is deliberately not reported: the caller
  // uploads the payload as it stands.
  if (!message.ParseFromIstream(&file)) return kResultOk;

  const char* missing = nullptr;
  const KorvaSettings* settings = QVRCS_SelectSettings(message, &missing);
  if (settings == nullptr) {
    QVR_LOG(kLogEmptySelection, filename, missing);
    return kResultFailed;
  }

  // Both images live in this frame; ~61.6 KB together.
  qvrcs::PremixBlock premix;
  qvrcs::PostmixBlock postmix;
  const int32_t resPre = QVRCS_ConvertPremix(context, *settings, premix, true);
  // The caller has no models of its own; the postmix's own model is added
  // by the converter.
  const ListeningModelList models;
  const int32_t resPost = QVRCS_ConvertPostmix(context, *settings, postmix, true, models);

  if ((resPre | resPost) != 0) {
    QVR_LOG(kLogConversionFailed, resPre, resPost);
    return kResultFailed;
  }

  std::memcpy(outData + qvr::kPremixPayloadOffset, premix.data(), premix.size());
  std::memcpy(outData + qvr::kPostmixPayloadOffset, postmix.data(), postmix.size());
  return kResultOk;
}
