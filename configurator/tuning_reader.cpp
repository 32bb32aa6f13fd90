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
constexpr uint32_t kDspSampleRate = 48000;

// Log lines of this file.
constexpr char kLogNullArgument[] = "Error:  filename or outData is NULL";
constexpr char kLogCannotOpen[] = "Error: could not open %s";
constexpr char kLogNoWorkspace[] = "Error: %s has no workspace";
constexpr char kLogNoRouteConfiguration[] = "Error: %s has no routeConfiguration in workspace 0";
constexpr char kLogNoTech[] = "Error: %s has no tech in routeConfiguration 0";
constexpr char kLogConversionFailed[] = "Error: parsing Pre (res = %i) or Post (res = %i)";

// workspace[0].routeConfiguration[0].tech[0].korva_v1_1, or nullptr (with a
// log line) when one of the three lists is empty. An absent korva_v1_1 reads
// as its default instance.
const KorvaSettings* SelectSettings(const Qvrcs& message, const char* filename) {
  if (message.workspace_size() == 0) {
    QVR_LOG(kLogNoWorkspace, filename);
    return nullptr;
  }
  const auto& workspace = message.workspace(0);
  if (workspace.routeconfiguration_size() == 0) {
    QVR_LOG(kLogNoRouteConfiguration, filename);
    return nullptr;
  }
  const auto& route = workspace.routeconfiguration(0);
  if (route.tech_size() == 0) {
    QVR_LOG(kLogNoTech, filename);
    return nullptr;
  }
  return &route.tech(0).korva_v1_1();
}

}  // namespace

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
  QVRCS_InitContext(context, kDspSampleRate);

  // A file that does not parse is deliberately not reported: the caller
  // uploads the payload as it stands.
  if (!message.ParseFromIstream(&file)) return kResultOk;

  const KorvaSettings* settings = SelectSettings(message, filename);
  if (settings == nullptr) return kResultFailed;

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
