// The adaptive equaliser's IIR record: one coefficient Aeq named by uuid,
// reduced to two filter banks (one per channel) for the working rate.
#include <array>

#include "qvrcs/coef_pack.h"
#include "qvrcs/qvrcs.h"
#include "qvrcs/record_layout.h"

using com::qvr::pb::coef::Aeq;
using com::qvr::pb::coef::CoefTable;
using com::qvr::pb::coef::FilterBank;
using com::qvr::pb::korva_v1_1::Postmix;
using com::qvr::pb::model::listeningModel;
using qvrcs::BlockView;

namespace {

// Record layout: qvrcs/record_layout.h.
using qvrcs::kAeqChannel0;
using qvrcs::kAeqChannel1;
using qvrcs::kAeqChannels;
using qvrcs::kAeqCoefs;
using qvrcs::kAeqDefaultOrder;
using qvrcs::kAeqMarker;
using qvrcs::kAeqMarkerWord;
using qvrcs::kAeqOrderWord;

const Aeq* FindAeq(const std::string& uuid, const ListeningModelList& models) {
  for (const listeningModel& model : models) {
    for (const Aeq& aeq : model.aeqs()) {
      if (QVRCS_UuidEqualsIgnoreCase(aeq.uuid(), uuid)) return &aeq;
    }
  }
  return nullptr;
}

int32_t BankOrder(const FilterBank& bank) {
  return bank.has_iirorder() ? bank.iirorder() : kAeqDefaultOrder;
}

}  // namespace

int32_t QVRCS_LoadAeq(const std::string& uuid, const ListeningModelList& models, BlockView record,
                      uint32_t sampleRate) {
  const Aeq* aeq = FindAeq(uuid, models);
  if (aeq == nullptr) return QVRCS_ERR_NO_COEF_TABLE;

  // The two banks that become channels 0 and 1, picked by index so that the
  // caller's message is only read. With more than two banks, those without
  // an IIR table for the rate are passed over; with two or fewer every bank
  // stays, usable or not.
  const auto& banks = aeq->coefficient_table();
  std::array<int, kAeqChannels> chosen{};
  size_t kept = 0;
  const bool filter = banks.size() > static_cast<int>(kAeqChannels);
  for (int i = 0; i < banks.size() && kept < kAeqChannels; ++i) {
    if (!filter || QVRCS_FindCoefTable(banks.Get(i).iircoefs(), sampleRate) != nullptr) {
      chosen[kept++] = i;
    }
  }
  if (kept < kAeqChannels) return QVRCS_ERR_NO_COEF_TABLE;

  qvrcs::ZeroFill(record, 0, qvrcs::kAeqRecordSize);
  qvrcs::StoreI32(record, kAeqChannel1 + kAeqMarkerWord, kAeqMarker);
  qvrcs::StoreI32(record, kAeqChannel0 + kAeqMarkerWord, kAeqMarker);

  // Neither copy is bounded by its section: a long channel 0 table runs on
  // into channel 1 (written afterwards), a long channel 1 table on into the
  // Velmo high-pass section that follows the record.
  const FilterBank& bank0 = banks.Get(chosen[0]);
  qvrcs::StoreI32(record, kAeqChannel0 + kAeqOrderWord, BankOrder(bank0));
  const CoefTable* table0 = QVRCS_FindCoefTable(bank0.iircoefs(), sampleRate);
  if (table0 != nullptr) qvrcs::PackCoeff32(record, kAeqChannel0 + kAeqCoefs, table0->coeff_32());

  const FilterBank& bank1 = banks.Get(chosen[1]);
  qvrcs::StoreI32(record, kAeqChannel1 + kAeqOrderWord, BankOrder(bank1));
  const CoefTable* table1 = QVRCS_FindCoefTable(bank1.iircoefs(), sampleRate);
  if (table1 == nullptr) return QVRCS_ERR_NO_COEF_TABLE;
  qvrcs::PackCoeff32(record, kAeqChannel1 + kAeqCoefs, table1->coeff_32());

  return table0 != nullptr ? QVRCS_OK : QVRCS_ERR_NO_COEF_TABLE;
}

int32_t QVRCS_ConvertAeqCoef(const ConversionContext& context, const Postmix& postmix,
                             const ListeningModelList& models, BlockView block) {
  // The first locator that loads wins; failures only move on to the next.
  int32_t status = QVRCS_NOTHING_TO_LOAD;
  for (const auto& locator : postmix.aeqcoef()) {
    if (locator.uuid().empty()) continue;
    status = QVRCS_LoadAeq(locator.uuid(), models, block.At(qvrcs::kAeqRecord), context.sampleRate);
    if (status == QVRCS_OK) break;
  }
  return status;
}
