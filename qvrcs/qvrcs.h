// Conversion of one KorvaSettings (version 1.1) record into the DSP's premix
// and postmix parameter blocks. No I/O, no logging, no exceptions: every entry
// point returns a signed 32-bit status (0 = success).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "coefs.pb.h"
#include "korva_v1_1.pb.h"
#include "listeningmodel.pb.h"
#include "qvrcs/block_io.h"
#include "qvrcs/layout.h"
#include "qvrcs/trace.h"

namespace qvrcs {

// ---- Status codes of the conversion ------------------------------------------
constexpr int32_t QVRCS_OK = 0;
constexpr int32_t QVRCS_NOTHING_TO_LOAD = 1;                // never a failure
constexpr int32_t QVRCS_ERR_NEGATIVE_REF_HTEST = -997;      // negative ref_htest entry
constexpr int32_t QVRCS_ERR_RECORD_TOO_LARGE = -997;        // record larger than its slot
constexpr int32_t QVRCS_ERR_NO_COEF_TABLE = -998;           // no/unusable table for the rate
constexpr int32_t QVRCS_ERR_UNKNOWN_ROOM = -999;            // no listening model holds the room

// Short meaning of a conversion status, for logs and tools.
const char* QVRCS_StatusText(int32_t status);

// ---- Shared types ------------------------------------------------------------
struct ConversionContext {
  uint32_t sampleRate = 0;  // Hz; the reader sets 48000 before every conversion
};

// Ordered, non-owning references to the listening models in which
// ResourceLocator uuids are resolved.
using ListeningModelList =
    std::vector<std::reference_wrapper<const com::qvr::pb::model::listeningModel>>;

void QVRCS_InitContext(ConversionContext& context, uint32_t sampleRate);

// ---- Premix block ------------------------------------------------------------
int32_t QVRCS_ConvertPremix(const ConversionContext& context,
                            const com::qvr::pb::korva_v1_1::KorvaSettings& settings,
                            PremixBlock& block, bool useTemplate,
    TraceObserver* trace = nullptr);
void QVRCS_ConvertDravo(const ConversionContext& context,
                        const com::qvr::pb::korva_v1_1::KorvaSettings& settings,
                        BlockView block,
    TraceObserver* trace = nullptr);
// Fills a 96-byte Enhance2 section; 0 or QVRCS_ERR_NEGATIVE_REF_HTEST.
int32_t QVRCS_ConvertEnhance2(const ConversionContext& context,
                              const com::qvr::pb::tech::Enhance2& enhance2,
                              BlockView section,
    TraceObserver* trace = nullptr);

// ---- Postmix control section (bytes 0..411) ----------------------------------
int32_t QVRCS_ConvertPostmixControls(const ConversionContext& context,
                                     const com::qvr::pb::korva_v1_1::KorvaSettings& settings,
                                     BlockView block,
    TraceObserver* trace = nullptr);
void QVRCS_ConvertVelmo(const ConversionContext& context,
                        const com::qvr::pb::korva_v1_1::KorvaSettings& settings,
                        BlockView section,
    TraceObserver* trace = nullptr);
void QVRCS_ConvertMox3d(const ConversionContext& context,
                        const com::qvr::pb::korva_v1_1::KorvaSettings& settings,
                        BlockView section,
    TraceObserver* trace = nullptr);
void QVRCS_ConvertOmbra(const ConversionContext& context,
                        const com::qvr::pb::korva_v1_1::KorvaSettings& settings,
                        BlockView section,
    TraceObserver* trace = nullptr);
void QVRCS_ConvertGorm(const ConversionContext& context,
                       const com::qvr::pb::korva_v1_1::KorvaSettings& settings,
                       BlockView section,
    TraceObserver* trace = nullptr);
void QVRCS_ConvertGeq10b(const ConversionContext& context,
                         const com::qvr::pb::korva_v1_1::KorvaSettings& settings,
                         BlockView section,
    TraceObserver* trace = nullptr);
void QVRCS_ConvertAeq(const ConversionContext& context,
                      const com::qvr::pb::korva_v1_1::KorvaSettings& settings,
                      BlockView section,
    TraceObserver* trace = nullptr);
void QVRCS_ConvertZell(const ConversionContext& context,
                       const com::qvr::pb::korva_v1_1::KorvaSettings& settings,
                       BlockView section,
    TraceObserver* trace = nullptr);

// ---- Whole postmix block -----------------------------------------------------
int32_t QVRCS_ConvertPostmix(const ConversionContext& context,
                             const com::qvr::pb::korva_v1_1::KorvaSettings& settings,
                             PostmixBlock& block, bool useTemplate,
                             const ListeningModelList& models,
    TraceObserver* trace = nullptr);

// ---- Coefficient tables ------------------------------------------------------
// First table whose sampleRate is present and equals `sampleRate`, or nullptr.
const com::qvr::pb::coef::CoefTable* QVRCS_FindCoefTable(
    const google::protobuf::RepeatedPtrField<com::qvr::pb::coef::CoefTable>& tables,
    uint32_t sampleRate);
int32_t QVRCS_ConvertVelmoXoverCoef(const ConversionContext& context,
                                    const com::qvr::pb::korva_v1_1::Postmix& postmix,
                                    BlockView block,
    TraceObserver* trace = nullptr);
int32_t QVRCS_ConvertVelmoHpfCoef(const ConversionContext& context,
                                  const com::qvr::pb::korva_v1_1::Postmix& postmix,
                                  BlockView block,
    TraceObserver* trace = nullptr);
int32_t QVRCS_ConvertGormCoef(const ConversionContext& context,
                              const com::qvr::pb::korva_v1_1::Postmix& postmix,
                              BlockView block,
    TraceObserver* trace = nullptr);

// ---- Rooms, headphone EQ, AEQ ------------------------------------------------
int32_t QVRCS_LoadRoom(const std::string& uuid, const ListeningModelList& models,
                       BlockView slot, size_t capacity, uint32_t sampleRate,
    TraceObserver* trace = nullptr);
int32_t QVRCS_LoadHeadphoneEq(const std::string& uuid, const ListeningModelList& models,
                              BlockView slot, size_t capacity, uint32_t sampleRate,
    TraceObserver* trace = nullptr);
bool QVRCS_PackUuid(const std::string& uuid, BlockView destination);
bool QVRCS_UuidEqualsIgnoreCase(const std::string& a, const std::string& b);
int32_t QVRCS_ConvertAeqCoef(const ConversionContext& context,
                             const com::qvr::pb::korva_v1_1::Postmix& postmix,
                             const ListeningModelList& models, BlockView block,
    TraceObserver* trace = nullptr);
int32_t QVRCS_LoadAeq(const std::string& uuid, const ListeningModelList& models,
                      BlockView record, uint32_t sampleRate,
    TraceObserver* trace = nullptr);

}  // namespace qvrcs
