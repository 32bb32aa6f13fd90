// Coefficient table selection and the three small coefficient sections at
// the end of the postmix block: Velmo crossover, Velmo high-pass and Gorm.
//
// Two selection rules are in use on purpose. Rooms, headphone EQ and AEQ take
// the first table whose sampleRate is present and equal to the working rate
// (QVRCS_FindCoefTable); the sections here and the postmix high-pass filter
// compare the sampleRate value alone, so an absent rate reads as 0.
#include "qvrcs/coef_pack.h"
#include "qvrcs/qvrcs.h"

namespace qvrcs {

void PackCoeff16(BlockView view, size_t offset, const CoefValues& values) {
  StoreI16Run(view, offset, values.data(), static_cast<size_t>(values.size()));
}

void PackCoeff32(BlockView view, size_t offset, const CoefValues& values) {
  StoreI32Run(view, offset, values.data(), static_cast<size_t>(values.size()));
}

}  // namespace qvrcs

using com::qvr::pb::coef::CoefTable;
using com::qvr::pb::korva_v1_1::Postmix;
using qvrcs::BlockView;

const CoefTable* QVRCS_FindCoefTable(const google::protobuf::RepeatedPtrField<CoefTable>& tables,
                                     uint32_t sampleRate) {
  for (const CoefTable& table : tables) {
    if (table.has_samplerate() && qvrcs::SampleRateEquals(table.samplerate(), sampleRate)) {
      return &table;
    }
  }
  return nullptr;
}

int32_t QVRCS_ConvertVelmoXoverCoef(const ConversionContext& context, const Postmix& postmix,
                                    BlockView block) {
  const auto& xover = postmix.velmo_xover_coef();
  // Written whether or not it is set: an absent record stores 0.
  qvrcs::StoreI32(block, qvrcs::kVelmoXoverOrder, xover.order());

  // Every matching table is written over the same place; the last one
  // prevails. The low-pass branch goes first, so a low-pass table longer
  // than its area is overwritten by the high-pass one where they overlap.
  for (const CoefTable& table : xover.lpf_coeffs()) {
    if (qvrcs::TableRateIs(table, context.sampleRate) && table.coeff_16_size() > 0) {
      qvrcs::PackCoeff16(block, qvrcs::kVelmoXoverLpfCoefs, table.coeff_16());
    }
  }
  for (const CoefTable& table : xover.hpf_coeffs()) {
    if (qvrcs::TableRateIs(table, context.sampleRate) && table.coeff_16_size() > 0) {
      qvrcs::PackCoeff16(block, qvrcs::kVelmoXoverHpfCoefs, table.coeff_16());
    }
  }
  return QVRCS_OK;
}

int32_t QVRCS_ConvertVelmoHpfCoef(const ConversionContext& context, const Postmix& postmix,
                                  BlockView block) {
  const auto& hpf = postmix.velmo_hpf_coef();
  qvrcs::StoreI32(block, qvrcs::kVelmoHpfOrder, hpf.order());
  if (hpf.order() == 0) return QVRCS_OK;  // filter off: no table needed

  // First table for the rate that fits the area; longer ones are passed over.
  for (const CoefTable& table : hpf.hpf_coeffs()) {
    if (qvrcs::TableRateIs(table, context.sampleRate) &&
        static_cast<size_t>(table.coeff_16_size()) <= qvrcs::kVelmoHpfMaxCoefs) {
      qvrcs::PackCoeff16(block, qvrcs::kVelmoHpfCoefs, table.coeff_16());
      return QVRCS_OK;
    }
  }
  return QVRCS_ERR_NO_COEF_TABLE;
}

int32_t QVRCS_ConvertGormCoef(const ConversionContext& context, const Postmix& postmix,
                              BlockView block) {
  const auto& gorm = postmix.gorm_coef();
  // Both sizes are written whether or not they are set.
  qvrcs::StoreI32(block, qvrcs::kGormAnalysisSize, gorm.analysis_size());
  qvrcs::StoreI32(block, qvrcs::kGormSpeakerSize, gorm.speaker_size());

  // The coefficient area closes the block: values past its 24 words are
  // dropped at the block's end.
  for (const CoefTable& table : gorm.coeffs()) {
    if (qvrcs::TableRateIs(table, context.sampleRate) && table.coeff_32_size() > 0) {
      qvrcs::PackCoeff32(block, qvrcs::kGormCoefs, table.coeff_32());
    }
  }
  return QVRCS_OK;
}
