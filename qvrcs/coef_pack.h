// Helpers shared by the coefficient, room, headphone-EQ and AEQ converters:
// sample-rate matching and packing of coefficient lists into a block.
#pragma once

#include <cstddef>
#include <cstdint>

#include <string>

#include "coefs.pb.h"
#include "qvrcs/block_io.h"
#include "qvrcs/qvrcs.h"
#include "qvrcs/trace.h"

namespace qvrcs {

using CoefValues = google::protobuf::RepeatedField<int32_t>;

// A table's rate is a signed field, the working rate an unsigned one; they
// are compared as numbers, so a negative table rate never matches.
inline bool SampleRateEquals(int32_t tableRate, uint32_t rate) {
  return static_cast<int64_t>(tableRate) == static_cast<int64_t>(rate);
}

// Value-only selection: the table's sampleRate value (0 when absent) is
// compared, its presence is not consulted.
inline bool TableRateIs(const com::qvr::pb::coef::CoefTable& table, uint32_t rate) {
  return SampleRateEquals(table.samplerate(), rate);
}

// Presence-checked selection (QVRCS_FindCoefTable) by index: -1 when no
// table has the rate.
int FindCoefTableIndex(const google::protobuf::RepeatedPtrField<com::qvr::pb::coef::CoefTable>& tables,
                       uint32_t sampleRate);

// Value `index` of a list, or 0 when the list is shorter.
inline int32_t ValueOrZero(const CoefValues& values, size_t index) {
  return index < static_cast<size_t>(values.size()) ? values.Get(static_cast<int>(index)) : 0;
}

// The trace's account of table `index` of its list, read as `bits`-bit values.
TraceTable TableChoice(const com::qvr::pb::coef::CoefTable& table, int index, unsigned bits);

// Packs the coeff_16 (`bits` 16) or coeff_32 (`bits` 32) values of `table`
// from section offset `offset` on (16-bit values keep their low 16 bits) and
// reports the run: its own area ends `areaSize` bytes after `offset`. The
// count is not bounded by the area: values run on into what follows, and
// those that would land past the block's end are dropped.
void PackTable(BlockView view, size_t offset, size_t areaSize, const com::qvr::pb::coef::CoefTable& table,
               int index, unsigned bits, TraceObserver* trace);

// Reports a run of `table` stored from section offset `offset` on, of which
// `written` values landed inside the block.
void TraceRun(TraceObserver* trace, BlockView view, size_t offset, size_t areaSize,
              const com::qvr::pb::coef::CoefTable& table, int index, unsigned bits, size_t written);

// Counts into `event` the coeff_16 values that do not fit 16 bits as they are.
void NoteWraps(const CoefValues& values, TraceEvent& event);

// Reports an event with `section` set on every event it passes on, and
// `locator` on the locator's own event: the walks over locator lists hand it
// to the loaders, which know neither.
class LocatorStamp final : public TraceObserver {
 public:
  LocatorStamp(TraceObserver* next, SectionId section, int locator)
      : next_(next), section_(section), locator_(locator) {}
  void OnEvent(const TraceEvent& event) override {
    TraceEvent stamped = event;
    stamped.section = section_;
    if (stamped.kind == TraceKind::kLocator) stamped.locator = locator_;
    next_->OnEvent(stamped);
  }
  // What to hand to a loader: nullptr when nothing is traced.
  TraceObserver* Get() { return next_ != nullptr ? this : nullptr; }

 private:
  TraceObserver* next_;
  SectionId section_;
  int locator_;
};

// Stores the one word of a tail section from a field of a coefficient record
// and reports it; `present`: the record has the field.
inline void StoreSectionWord(BlockView block, SectionId section, int32_t value, bool present,
                             TraceObserver* trace) {
  StoreI32(block, Section(section).offset, value);
  if (trace == nullptr) return;
  TraceEvent event;
  event.kind = TraceKind::kWord;
  event.section = section;
  event.offset = Section(section).offset;
  event.value = value;
  event.present = present;
  trace->OnEvent(event);
}

// Reports a table for the rate passed over for being longer than its section.
inline void TraceTooLong(TraceObserver* trace, const com::qvr::pb::coef::CoefTable& table, int index,
                         unsigned bits) {
  if (trace == nullptr) return;
  TraceEvent event;
  event.kind = TraceKind::kSkipped;
  event.table = TableChoice(table, index, bits);
  trace->OnEvent(event);
}

// Where a uuid was found among the listening models.
template <class Record>
struct ModelMatch {
  const Record* record = nullptr;  // nullptr: no model holds it
  int model = -1;
  int entry = -1;
};

// The first record of the models' lists (`list` picks rooms, headphones or
// aeqs of a model) whose uuid matches `uuid`, models in list order.
template <class Record, class List>
ModelMatch<Record> FindInModels(const std::string& uuid, const ListeningModelList& models, List list) {
  for (size_t m = 0; m < models.size(); ++m) {
    const auto& records = list(models[m].get());
    for (int i = 0; i < records.size(); ++i) {
      if (QVRCS_UuidEqualsIgnoreCase(records.Get(i).uuid(), uuid)) {
        return ModelMatch<Record>{&records.Get(i), static_cast<int>(m), i};
      }
    }
  }
  return {};
}

// A locator event for `match`.
template <class Record>
TraceEvent LocatorEvent(const ModelMatch<Record>& match, const std::string& uuid) {
  TraceEvent event;
  event.kind = TraceKind::kLocator;
  event.uuid = &uuid;
  event.model = match.model;
  event.entry = match.entry;
  event.record = match.record;
  return event;
}

// Runs `load`(record or nullptr, event) for the record a locator names and
// reports the locator with what `load` noted in the event and its status.
template <class Record, class List, class Load>
int32_t LoadLocated(const std::string& uuid, const ListeningModelList& models, List list, size_t capacity,
                    TraceObserver* trace, Load load) {
  const ModelMatch<Record> match = FindInModels<Record>(uuid, models, list);
  TraceEvent event = LocatorEvent(match, uuid);
  event.capacity = capacity;
  event.status = load(match.record, event);
  if (trace != nullptr) trace->OnEvent(event);
  return event.status;
}

}  // namespace qvrcs
