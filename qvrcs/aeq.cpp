// The adaptive equaliser's IIR record: one coefficient Aeq named by uuid,
// reduced to two filter banks (one per channel) for the working rate.
#include <array>

#include "qvrcs/coef_pack.h"
#include "qvrcs/qvrcs.h"
#include "qvrcs/record_layout.h"
#include "qvrcs/sections.h"

namespace qvrcs {

using com::qvr::pb::coef::Aeq;
using com::qvr::pb::coef::CoefTable;
using com::qvr::pb::coef::FilterBank;
using com::qvr::pb::korva_v1_1::Postmix;
using com::qvr::pb::model::listeningModel;

namespace {

// Record layout: qvrcs/record_layout.h.

const auto AeqsOf = [](const listeningModel& model) -> const auto& { return model.aeqs(); };

int32_t BankOrder(const FilterBank& bank) {
  return bank.has_iirorder() ? bank.iirorder() : kAeqDefaultOrder;
}

// One channel section from `bank`: its order word and, when the bank has an
// IIR table for the rate, its coefficients. Neither copy is bounded by its
// section: a long channel 0 table runs on into channel 1 (written
// afterwards), a long channel 1 table on into the Velmo high-pass section
// that follows the record. False when the bank has no table.
bool LoadChannel(BlockView record, size_t channel, const FilterBank& bank, int bankIndex, uint32_t sampleRate,
                 TraceObserver* trace) {
  const size_t section = channel == 0 ? kAeqChannel0 : kAeqChannel1;
  StoreI32(record, section + kAeqOrderWord, BankOrder(bank));
  const auto& tables = bank.iircoefs();
  const int index = FindCoefTableIndex(tables, sampleRate);
  const CoefTable* table = index >= 0 ? &tables.Get(index) : nullptr;
  if (trace != nullptr) {
    TraceEvent event;
    event.kind = TraceKind::kChannel;
    event.channel = static_cast<int>(channel);
    event.entry = bankIndex;
    event.value = BankOrder(bank);
    if (table != nullptr) event.table = TableChoice(*table, index, 32);
    trace->OnEvent(event);
  }
  if (table == nullptr) return false;
  PackTable(record, section + kAeqCoefs, 4 * kAeqChannelCoefs, *table, index, 32, trace);
  return true;
}

int32_t LoadAeq(const Aeq* aeq, BlockView record, uint32_t sampleRate, TraceEvent& event,
                TraceObserver* trace) {
  if (aeq == nullptr) return QVRCS_ERR_NO_COEF_TABLE;

  // The two banks that become channels 0 and 1, picked by index so that the
  // caller's message is only read. With more than two banks, those without
  // an IIR table for the rate are passed over; with two or fewer every bank
  // stays, usable or not.
  const auto& banks = aeq->coefficient_table();
  std::array<int, kAeqChannels> chosen{};
  size_t kept = 0;
  const bool filter = banks.size() > static_cast<int>(kAeqChannels);
  // The trace counts every usable bank; the conversion needs the first two.
  for (int i = 0; i < banks.size() && (kept < kAeqChannels || trace != nullptr); ++i) {
    if (!filter || QVRCS_FindCoefTable(banks.Get(i).iircoefs(), sampleRate) != nullptr) {
      if (kept < kAeqChannels) chosen[kept] = i;
      ++kept;
    }
  }
  event.banks = banks.size();
  event.usableBanks = static_cast<int>(kept);
  event.filtered = filter;
  if (kept < kAeqChannels) return QVRCS_ERR_NO_COEF_TABLE;

  ZeroFill(record, 0, kAeqRecordSize);
  StoreI32(record, kAeqChannel1 + kAeqMarkerWord, kAeqMarker);
  StoreI32(record, kAeqChannel0 + kAeqMarkerWord, kAeqMarker);

  const bool channel0 = LoadChannel(record, 0, banks.Get(chosen[0]), chosen[0], sampleRate, trace);
  if (!LoadChannel(record, 1, banks.Get(chosen[1]), chosen[1], sampleRate, trace)) {
    return QVRCS_ERR_NO_COEF_TABLE;
  }
  return channel0 ? QVRCS_OK : QVRCS_ERR_NO_COEF_TABLE;
}

}  // namespace

int32_t QVRCS_LoadAeq(const std::string& uuid, const ListeningModelList& models, BlockView record,
                      uint32_t sampleRate, TraceObserver* trace) {
  return LoadLocated<Aeq>(uuid, models, AeqsOf, kAeqRecordSize, trace,
                                 [&](const Aeq* aeq, TraceEvent& event) {
                                   return LoadAeq(aeq, record, sampleRate, event, trace);
                                 });
}

int32_t QVRCS_ConvertAeqCoef(const ConversionContext& context, const Postmix& postmix,
                             const ListeningModelList& models, BlockView block,
                             TraceObserver* trace) {
  // The first locator that loads wins; failures only move on to the next.
  int32_t status = QVRCS_NOTHING_TO_LOAD;
  int chosen = -1;
  const auto& locators = postmix.aeqcoef();
  for (int i = 0; i < locators.size(); ++i) {
    const std::string& uuid = locators.Get(i).uuid();
    LocatorStamp stamp(trace, SectionId::kAeq, i);
    if (uuid.empty()) {
      if (trace != nullptr) {
        TraceEvent event = LocatorEvent(ModelMatch<Aeq>{}, uuid);
        event.status = QVRCS_NOTHING_TO_LOAD;
        stamp.OnEvent(event);
      }
      continue;
    }
    status = QVRCS_LoadAeq(uuid, models, block.At(kAeqRecord), context.sampleRate, stamp.Get());
    if (status == QVRCS_OK) {
      chosen = i;
      break;
    }
  }
  TraceStatus(trace, SectionId::kAeq, status, chosen);
  return status;
}

}  // namespace qvrcs
