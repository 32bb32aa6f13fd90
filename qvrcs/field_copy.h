// Table-driven copy of settings fields into a block section.
//
// A FieldCopyEntry names one optional scalar field of a settings message
// (presence test, getter) and the byte offset, inside the section
// the table fills, where its value goes. A FieldCopyTable groups the entries
// that share one store width. A RepeatedCopyEntry does the same for a
// repeated field that fills a fixed run of 32-bit slots.
//
// The entries of a table are in the order of the fields' numbers in the
// schema, and that is the order in which they are written.
#pragma once

#include <cstddef>
#include <cstdint>

#include <google/protobuf/repeated_field.h>

#include "qvrcs/block_io.h"
#include "qvrcs/layout.h"
#include "qvrcs/trace.h"

namespace qvrcs {

// Store width of a table, in bits.
enum class Width : uint8_t {
  k32 = 32,  // the whole signed 32-bit value
  k16 = 16,  // the low 16 bits only: plain truncation, no saturation
};

template <class Msg>
struct FieldCopyEntry {
  const char* name;  // the field's name in the schema
  bool (Msg::*has)() const;
  int32_t (Msg::*get)() const;
  uint16_t offset;  // byte offset inside the section
  int32_t templ;    // what the default block holds there
};

template <class Msg>
struct FieldCopyTable {
  Width width;
  const FieldCopyEntry<Msg>* entries;
  size_t count;

  template <size_t N>
  constexpr FieldCopyTable(Width w, const FieldCopyEntry<Msg> (&e)[N])
      : width(w), entries(e), count(N) {}

  const FieldCopyEntry<Msg>* begin() const { return entries; }
  const FieldCopyEntry<Msg>* end() const { return entries + count; }
};

// Most slots a repeated field fills.
constexpr size_t kMaxSlots = 7;

template <class Msg>
struct RepeatedCopyEntry {
  const char* name;  // the field's name in the schema
  const google::protobuf::RepeatedField<int32_t>& (Msg::*get)() const;
  uint16_t offset;           // byte offset of slot 0 inside the section
  uint8_t slots;             // elements past this count are not carried
  const uint8_t* slotOrder;  // slot of element i, or nullptr for slot i
  int32_t templ[kMaxSlots];  // what the default block holds, slot by slot
};

// A repeated field's entry: as many slots as its default has values.
template <class Msg, size_t N>
constexpr RepeatedCopyEntry<Msg> Repeated(const char* name,
                                          const google::protobuf::RepeatedField<int32_t>& (Msg::*get)() const,
                                          uint16_t offset, const uint8_t* slotOrder, const int32_t (&templ)[N]) {
  static_assert(N > 0 && N <= kMaxSlots, "a repeated field fills 1 to kMaxSlots slots");
  RepeatedCopyEntry<Msg> entry{name, get, offset, static_cast<uint8_t>(N), slotOrder, {}};
  for (size_t i = 0; i < N; ++i) entry.templ[i] = templ[i];
  return entry;
}

// Builds an entry from the field's name, so that every accessor and the name
// come from one spelling. The default value is required: an entry without
// one does not compile.
#define QVRCS_FIELD(Msg, field, offset, templ) \
  ::qvrcs::FieldCopyEntry<Msg> { #field, &Msg::has_##field, &Msg::field, offset, templ }
// The default lists the values of the slots in block order; their number is
// the number of slots.
#define QVRCS_REPEATED(Msg, field, offset, slotOrder, ...) \
  ::qvrcs::Repeated<Msg>(#field, &Msg::field, offset, slotOrder, __VA_ARGS__)

// Stores `value` at `offset` of `section` with the table's width.
inline void StoreField(BlockView section, size_t offset, Width width, int32_t value) {
  if (width == Width::k16) {
    StoreI16(section, offset, value);
  } else {
    StoreI32(section, offset, value);
  }
}

// The block a view belongs to, for the trace.
inline TraceBlock TraceBlockOf(const BlockView& view) {
  return view.blockSize == kPremixBlockSize ? TraceBlock::kPremix : TraceBlock::kPostmix;
}

// Reports one stored settings value.
inline void TraceField(TraceObserver* trace, const BlockView& section, size_t offset, Width width,
                       int32_t value) {
  TraceEvent event;
  event.kind = TraceKind::kField;
  event.block = TraceBlockOf(section);
  event.offset = section.base + offset;
  event.width = static_cast<uint8_t>(width);
  event.value = value;
  // What the block holds now, read back.
  event.stored = width == Width::k16 ? LoadI16(section.block, section.blockSize, event.offset)
                                     : LoadI32(section.block, section.blockSize, event.offset);
  event.wrapped = event.stored != value;
  trace->OnEvent(event);
}

// Copies every present field of `table`, in table order; absent fields leave
// their bytes as they are.
template <class Msg>
void CopyFields(const Msg& message, const FieldCopyTable<Msg>& table, BlockView section,
                TraceObserver* trace = nullptr) {
  for (const FieldCopyEntry<Msg>& entry : table) {
    if (!(message.*entry.has)()) continue;
    const int32_t value = (message.*entry.get)();
    StoreField(section, entry.offset, table.width, value);
    if (trace != nullptr) TraceField(trace, section, entry.offset, table.width, value);
  }
}

// Byte offset, inside the section, of element `index` of a repeated field.
template <class Msg>
constexpr size_t SlotOffset(const RepeatedCopyEntry<Msg>& entry, size_t index) {
  const size_t slot = entry.slotOrder != nullptr ? entry.slotOrder[index] : index;
  return entry.offset + 4 * slot;
}

// Stores the first min(count, slots) elements; the remaining slots keep their
// bytes. Stores each element as it goes and hands it to `check` right after;
// a false from `check` stops the copy (the offending element stays written).
// Returns false when the copy was stopped.
template <class Msg, class Check>
bool CopyRepeated(const Msg& message, const RepeatedCopyEntry<Msg>& entry, BlockView section,
                  TraceObserver* trace, Check check) {
  const google::protobuf::RepeatedField<int32_t>& values = (message.*entry.get)();
  const size_t count = static_cast<size_t>(values.size());
  const size_t stored = count < entry.slots ? count : entry.slots;
  if (trace != nullptr && count > stored) {
    TraceEvent event;
    event.kind = TraceKind::kDropped;
    event.block = TraceBlockOf(section);
    event.offset = section.base + SlotOffset(entry, 0);
    event.value = static_cast<int32_t>(entry.slots);
    event.count = count - stored;
    trace->OnEvent(event);
  }
  for (size_t i = 0; i < stored; ++i) {
    const int32_t value = values.Get(static_cast<int>(i));
    const size_t offset = SlotOffset(entry, i);
    StoreI32(section, offset, value);
    if (trace != nullptr) TraceField(trace, section, offset, Width::k32, value);
    if (!check(value)) {
      if (trace != nullptr) {
        TraceEvent event;
        event.kind = TraceKind::kStopped;
        event.block = TraceBlockOf(section);
        event.offset = section.base + offset;
        event.value = value;
        event.count = stored - i - 1;
        trace->OnEvent(event);
        for (size_t later = i + 1; later < stored; ++later) {
          TraceEvent unwritten;
          unwritten.kind = TraceKind::kUnwritten;
          unwritten.block = event.block;
          unwritten.offset = section.base + SlotOffset(entry, later);
          trace->OnEvent(unwritten);
        }
      }
      return false;
    }
  }
  return true;
}

template <class Msg>
void CopyRepeated(const Msg& message, const RepeatedCopyEntry<Msg>& entry, BlockView section,
                  TraceObserver* trace = nullptr) {
  CopyRepeated(message, entry, section, trace, [](int32_t) { return true; });
}

}  // namespace qvrcs
