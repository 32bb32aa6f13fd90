// Coefficient table selection and the three small coefficient sections at
// the end of the postmix block: Velmo crossover, Velmo high-pass and Gorm.
//
// Two selection rules are in use on purpose. Rooms, headphone EQ and AEQ take
// the first table whose sampleRate is present and equal to the working rate
// (QVRCS_FindCoefTable); the sections here and the postmix high-pass filter
// compare the sampleRate value alone, so an absent rate reads as 0.
#include <initializer_list>

#include "qvrcs/coef_pack.h"
#include "qvrcs/qvrcs.h"
#include "qvrcs/sections.h"

namespace qvrcs {

TraceTable TableChoice(const com::qvr::pb::coef::CoefTable& table, int index, unsigned bits) {
  TraceTable choice;
  choice.index = index;
  choice.sampleRate = table.samplerate();
  choice.bits = static_cast<uint8_t>(bits);
  choice.count = static_cast<size_t>(bits == 16 ? table.coeff_16_size() : table.coeff_32_size());
  return choice;
}

void PackTable(BlockView view, size_t offset, size_t areaSize, const com::qvr::pb::coef::CoefTable& table,
               int index, unsigned bits, TraceObserver* trace) {
  const CoefValues& values = bits == 16 ? table.coeff_16() : table.coeff_32();
  const size_t count = static_cast<size_t>(values.size());
  const size_t written = bits == 16 ? StoreI16Run(view, offset, values.data(), count)
                                    : StoreI32Run(view, offset, values.data(), count);
  TraceRun(trace, view, offset, areaSize, table, index, bits, written);
}

void TraceRun(TraceObserver* trace, BlockView view, size_t offset, size_t areaSize,
              const com::qvr::pb::coef::CoefTable& table, int index, unsigned bits, size_t written) {
  if (trace == nullptr) return;
  const CoefValues& values = bits == 16 ? table.coeff_16() : table.coeff_32();
  const size_t count = static_cast<size_t>(values.size());
  TraceEvent event;
  event.kind = TraceKind::kRun;
  event.offset = view.base + offset;
  event.width = static_cast<uint8_t>(bits);
  event.table = TableChoice(table, index, bits);
  event.values = values.data();
  event.count = count;
  event.written = written;
  event.areaEnd = event.offset + areaSize;
  event.end = event.offset + count * bits / 8;
  if (bits == 16) NoteWraps(values, event);
  trace->OnEvent(event);
}

void NoteWraps(const CoefValues& values, TraceEvent& event) {
  for (int i = 0; i < values.size(); ++i) {
    const int32_t value = values.Get(i);
    if (!CoefWraps16(value)) continue;
    if (event.wrappedCount++ == 0) {
      event.firstWrapped = i;
      event.firstWrappedValue = value;
      event.firstWrappedStored = CoefStored16(value);
    }
  }
}

using com::qvr::pb::coef::CoefTable;
using com::qvr::pb::korva_v1_1::Postmix;

int FindCoefTableIndex(const google::protobuf::RepeatedPtrField<CoefTable>& tables, uint32_t sampleRate) {
  for (int i = 0; i < tables.size(); ++i) {
    const CoefTable& table = tables.Get(i);
    if (table.has_samplerate() && SampleRateEquals(table.samplerate(), sampleRate)) return i;
  }
  return -1;
}

const CoefTable* QVRCS_FindCoefTable(const google::protobuf::RepeatedPtrField<CoefTable>& tables,
                                     uint32_t sampleRate) {
  const int index = FindCoefTableIndex(tables, sampleRate);
  return index >= 0 ? &tables.Get(index) : nullptr;
}

namespace {

// Every table of `tables` whose rate value is the working rate and that has
// values of the variant is written over the same place: the last one
// prevails. The count is not bounded by the section.
void PackEveryMatch(const google::protobuf::RepeatedPtrField<CoefTable>& tables, uint32_t rate, BlockView block,
                    SectionId id, unsigned bits, TraceObserver* trace) {
  const SectionInfo& section = Section(id);
  LocatorStamp stamp(trace, id, -1);
  for (int i = 0; i < tables.size(); ++i) {
    const CoefTable& table = tables.Get(i);
    const int count = bits == 16 ? table.coeff_16_size() : table.coeff_32_size();
    if (TableRateIs(table, rate) && count > 0) {
      PackTable(block, section.offset, section.size, table, i, bits, stamp.Get());
    }
  }
}

}  // namespace

int32_t QVRCS_ConvertVelmoXoverCoef(const ConversionContext& context, const Postmix& postmix,
                                    BlockView block, TraceObserver* trace) {
  const auto& xover = postmix.velmo_xover_coef();
  // Written whether or not it is set: an absent record stores 0.
  StoreSectionWord(block, SectionId::kVelmoCrossoverOrder, xover.order(), xover.has_order(), trace);

  // The low-pass branch goes first, so a low-pass table longer than its area
  // is overwritten by the high-pass one where they overlap.
  PackEveryMatch(xover.lpf_coeffs(), context.sampleRate, block, SectionId::kVelmoCrossoverLowPass, 16, trace);
  PackEveryMatch(xover.hpf_coeffs(), context.sampleRate, block, SectionId::kVelmoCrossoverHighPass, 16, trace);
  TraceStatus(trace, {SectionId::kVelmoCrossoverOrder, SectionId::kVelmoCrossoverLowPass, SectionId::kVelmoCrossoverHighPass},
                QVRCS_OK);
  return QVRCS_OK;
}

int32_t QVRCS_ConvertVelmoHpfCoef(const ConversionContext& context, const Postmix& postmix,
                                  BlockView block, TraceObserver* trace) {
  const auto& hpf = postmix.velmo_hpf_coef();
  StoreSectionWord(block, SectionId::kVelmoHighPassOrder, hpf.order(), hpf.has_order(), trace);
  int32_t status = QVRCS_ERR_NO_COEF_TABLE;
  if (hpf.order() == 0) {
    status = QVRCS_OK;  // filter off: no table needed
  } else {
    // First table for the rate that fits the area; longer ones are passed over.
    const SectionInfo& coefs = Section(SectionId::kVelmoHighPassCoefs);
    LocatorStamp stamp(trace, SectionId::kVelmoHighPassCoefs, -1);
    for (int i = 0; i < hpf.hpf_coeffs_size() && status != QVRCS_OK; ++i) {
      const CoefTable& table = hpf.hpf_coeffs(i);
      if (!TableRateIs(table, context.sampleRate)) continue;
      if (static_cast<size_t>(table.coeff_16_size()) > coefs.capacity()) {
        TraceTooLong(stamp.Get(), table, i, 16);
        continue;
      }
      PackTable(block, coefs.offset, coefs.size, table, i, 16, stamp.Get());
      status = QVRCS_OK;
    }
  }
  TraceStatus(trace, {SectionId::kVelmoHighPassOrder, SectionId::kVelmoHighPassCoefs}, status);
  return status;
}

int32_t QVRCS_ConvertGormCoef(const ConversionContext& context, const Postmix& postmix,
                              BlockView block, TraceObserver* trace) {
  const auto& gorm = postmix.gorm_coef();
  // Both sizes are written whether or not they are set.
  StoreSectionWord(block, SectionId::kGormAnalysis, gorm.analysis_size(), gorm.has_analysis_size(), trace);
  StoreSectionWord(block, SectionId::kGormSpeaker, gorm.speaker_size(), gorm.has_speaker_size(), trace);

  // The coefficient area closes the block: values past its 24 words are
  // dropped at the block's end.
  PackEveryMatch(gorm.coeffs(), context.sampleRate, block, SectionId::kGormCoefficients, 32, trace);
  TraceStatus(trace, {SectionId::kGormSpeaker, SectionId::kGormAnalysis, SectionId::kGormCoefficients},
                QVRCS_OK);
  return QVRCS_OK;
}

}  // namespace qvrcs
