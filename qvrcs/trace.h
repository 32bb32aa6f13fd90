// Conversion trace: what the converters did, reported as they do it.
//
// Every converter takes an optional TraceObserver. On the device it is null:
// each report point is one pointer test, nothing is built, allocated or
// formatted. The host tools pass a ConversionTrace, which keeps the events in
// the order they happened, and read the converters' decisions from it (which
// record a locator found, which table won, where a record ends, what was cut,
// wrapped or passed over, each status) instead of working them out again.
//
// Offsets are absolute byte offsets in the event's block. Names of fields are
// not carried: the block maps (qvrcs/block_map.h) and the section table
// (qvrcs/sections.h) give them by offset and section.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "qvrcs/sections.h"

namespace google::protobuf {
class Message;
}

namespace qvrcs {

enum class TraceBlock : uint8_t { kPremix, kPostmix };

enum class TraceKind : uint8_t {
  // A settings value stored at `offset` (`width` bits): `value` as the file
  // gives it, `stored` as the block holds it, `wrapped` when the two differ.
  kField,
  // A ref_htest element: the value at `offset` (already stored) is negative;
  // the section stops there and `count` later elements of the file are not
  // written (each reported as kUnwritten).
  kStopped,
  // The slot at `offset` of a repeated field that a stop left unwritten.
  kUnwritten,
  // The word at `offset` held `value` and now holds `stored` (the one value
  // rewrite of the conversion).
  kRewritten,
  // A word of a tail section (`section`) stored from a coefficient record:
  // `value`; `present` says whether the record has the field.
  kWord,
  // One locator of a room, headphone-EQ or AEQ list was taken: see the
  // locator members below. Events of the record's channels and runs come
  // just before it.
  kLocator,
  // AEQ: channel `channel` takes filter bank `entry`; its IIR table `table`
  // (index -1 when the bank has none for the rate), its order `value`.
  kChannel,
  // A run of coefficients stored from `table` at `offset`: `count` values of
  // `width` bits, `written` of them inside the block (the rest would cross
  // its end); the run's own area ends at `areaEnd`.
  kRun,
  // A table of `section` for the rate passed over because it holds more
  // values than the section: `table`.
  kSkipped,
  // A step of the postmix conversion ended with `status`; `section` is the
  // tail section it fills (kNone: the control section). For a room,
  // headphone-EQ or AEQ section `locator` is the locator whose record the
  // section holds in the end (-1: none).
  kStatus,
  // A repeated field whose first element goes to `offset` has `count` more
  // elements than its `value` slots: those are not written.
  kDropped,
};

// A coefficient table as the converter chose it.
struct TraceTable {
  int index = -1;          // in its list; -1: none
  int32_t sampleRate = 0;  // the table's rate
  uint8_t bits = 0;        // the variant read: 16 (coeff_16) or 32 (coeff_32)
  size_t count = 0;        // values of that variant
};

struct TraceEvent {
  TraceKind kind = TraceKind::kField;
  TraceBlock block = TraceBlock::kPostmix;
  SectionId section = SectionId::kNone;
  size_t offset = 0;
  uint8_t width = 32;
  int32_t value = 0;
  int32_t stored = 0;
  bool present = false;
  bool wrapped = false;
  size_t count = 0;

  // kLocator
  int locator = -1;                   // index in the locator list
  const std::string* uuid = nullptr;  // the locator's uuid (points into the settings)
  int32_t status = 0;                 // also kStatus
  int model = -1;                     // index of the model that holds the record; -1: none does
  int entry = -1;                     // the record's index in the model's list (kChannel: the bank)
  const google::protobuf::Message* record = nullptr;  // the record found
  size_t capacity = 0;                // the slot's capacity (rooms)
  size_t end = 0;                     // one past the last byte the record reaches (or would)
  uint32_t length = 0;                // headphone EQ: the ihpirLength the file gives
  uint32_t taps = 0;                  // headphone EQ, long form: taps kept per channel; 0: short form
  int banks = 0;                      // AEQ: filter banks of the record
  int usableBanks = 0;                // AEQ: banks kept (all of them when `filtered` is false)
  bool filtered = false;              // AEQ: banks without a table for the rate were passed over
  int channel = -1;                   // kChannel
  bool uuidPacked = true;             // rooms, headphone EQ: the record's uuid was 16 hex bytes as written

  TraceTable table;  // kLocator (rooms, headphone EQ), kChannel, kRun, kSkipped

  // kRun
  const int32_t* values = nullptr;  // the table's values (points into the settings)
  size_t written = 0;
  size_t areaEnd = 0;
  size_t wrappedCount = 0;  // 16-bit runs: values that do not fit 16 bits
  int firstWrapped = -1;    // index in the table of the first of them
  int32_t firstWrappedValue = 0;
  int32_t firstWrappedStored = 0;  // what the block holds for it (unsigned 16 bits)
};

class TraceObserver {
 public:
  virtual ~TraceObserver() = default;
  virtual void OnEvent(const TraceEvent& event) = 0;
};

// Reports that a step of the postmix conversion filling `section` ended with
// `status`; a section filled from a locator list gives `chosen`, the locator
// whose record it holds in the end (-1: none).
inline void TraceStatus(TraceObserver* trace, SectionId section, int32_t status, int chosen = -1) {
  if (trace == nullptr) return;
  TraceEvent event;
  event.kind = TraceKind::kStatus;
  event.section = section;
  event.status = status;
  event.locator = chosen;
  trace->OnEvent(event);
}

// The same status for each of several sections one step fills.
inline void TraceStatus(TraceObserver* trace, std::initializer_list<SectionId> sections, int32_t status) {
  for (SectionId id : sections) TraceStatus(trace, id, status);
}

// The observer the tools pass: every event, in order.
class ConversionTrace : public TraceObserver {
 public:
  void OnEvent(const TraceEvent& event) override { events.push_back(event); }
  std::vector<TraceEvent> events;
};

// Whether a coeff_16 value does not fit its unsigned 16-bit store as it is
// (values from -32768 to 65535 keep their bits).
constexpr bool CoefWraps16(int32_t value) { return value < -32768 || value > 65535; }

// What an unsigned 16-bit coefficient store keeps of `value`: its low 16 bits.
constexpr int32_t CoefStored16(int32_t value) { return static_cast<uint16_t>(value & 0xFFFF); }

}  // namespace qvrcs
