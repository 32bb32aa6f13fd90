// Rooms and headphone equalisers named by uuid: found in the listening
// models, their coefficient table chosen for the working rate, and written
// as fixed-header records into the slots of the postmix block.
#include <algorithm>
#include <array>
#include <cctype>

#include "qvrcs/coef_pack.h"
#include "qvrcs/qvrcs.h"
#include "qvrcs/record_layout.h"

namespace qvrcs {

using com::qvr::pb::coef::CoefTable;
using com::qvr::pb::model::headphoneEq;
using com::qvr::pb::model::listeningModel;
using com::qvr::pb::model::roomModel;

namespace {

constexpr size_t kUuidTextLength = 36;  // 8-4-4-4-12 hex digits with dashes
constexpr size_t kUuidBytes = 16;

// Record layouts: qvrcs/record_layout.h.

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

const auto RoomsOf = [](const listeningModel& model) -> const auto& { return model.rooms(); };
const auto HeadphonesOf = [](const listeningModel& model) -> const auto& { return model.headphones(); };

// The record fields are unsigned counts; the DSP reads the same 32 bits.
int32_t AsWord(uint32_t value) {
  return static_cast<int32_t>(value);
}

// The room record into `slot`; `event` (the locator's trace event) learns the
// table chosen and where the record ends.
int32_t LoadRoom(const roomModel* room, BlockView slot, size_t capacity, uint32_t sampleRate,
                 TraceEvent& event, TraceObserver* trace) {
  if (room == nullptr) return QVRCS_ERR_UNKNOWN_ROOM;

  const auto& tables = room->coefftables();
  const int index = FindCoefTableIndex(tables, sampleRate);
  if (index < 0) return QVRCS_ERR_NO_COEF_TABLE;
  const CoefTable* table = &tables.Get(index);
  event.table = TableChoice(*table, index, 16);
  if (table->coeff_16_size() == 0) return QVRCS_ERR_NO_COEF_TABLE;

  const size_t count = static_cast<size_t>(table->coeff_16_size());
  event.end = slot.base + kRoomCoefs + 2 * count;
  if (trace != nullptr) NoteWraps(table->coeff_16(), event);
  if (kRoomCoefs > capacity || count > RoomValuesHeld(capacity)) {
    return QVRCS_ERR_RECORD_TOO_LARGE;
  }

  event.uuidPacked = QVRCS_PackUuid(room->uuid(), slot.At(kRoomUuid));
  StoreI32(slot, kRoomChannelMask, AsWord(room->channelmask()));
  StoreI32(slot, kRoomNumPairs, AsWord(room->numpairs()));
  StoreI32(slot, kRoomBrirLength, AsWord(room->brirlength()));
  StoreI32(slot, kRoomSampleRate, table->samplerate());
  StoreI32(slot, kRoomReverbGain, room->reverbgain());
  StoreI32(slot, kRoomReverbCut, AsWord(room->reverbcut()));
  PackTable(slot, kRoomCoefs, capacity - kRoomCoefs, *table, event.table.index, 16, trace);
  return QVRCS_OK;
}

int32_t LoadHeadphoneEq(const headphoneEq* eq, BlockView slot, size_t capacity, uint32_t sampleRate,
                        TraceEvent& event, TraceObserver* trace) {
  if (eq == nullptr) return QVRCS_NOTHING_TO_LOAD;  // an unknown headphone EQ is not an error

  const auto& tables = eq->coefftables();
  const int index = FindCoefTableIndex(tables, sampleRate);
  if (index < 0) return QVRCS_ERR_NO_COEF_TABLE;
  const CoefTable* table = &tables.Get(index);
  event.table = TableChoice(*table, index, 16);
  event.length = eq->ihpirlength();
  if (table->coeff_16_size() == 0) return QVRCS_ERR_NO_COEF_TABLE;

  if (trace != nullptr) NoteWraps(table->coeff_16(), event);
  StoreI32(slot, kHpeqSampleRate, table->samplerate());
  event.uuidPacked = QVRCS_PackUuid(eq->uuid(), slot.At(kHpeqUuid));

  const CoefValues& values = table->coeff_16();
  size_t at = kHpeqCoefs;
  for (size_t i = 0; i < kHpeqLeadValues; ++i, at += 2) {
    StoreI16(slot, at, ValueOrZero(values, i));
  }

  if (eq->ihpirlength() <= kHpeqMaxTaps) {
    // Short form: the rest of the table in order, not bounded by the slot
    // (the block's end still is).
    StoreI32(slot, kHpeqLength, AsWord(eq->ihpirlength()));
    size_t written = std::min(static_cast<size_t>(values.size()), kHpeqLeadValues);
    if (static_cast<size_t>(values.size()) > kHpeqLeadValues) {
      written += StoreI16Run(slot, at, values.data() + kHpeqLeadValues,
                                    static_cast<size_t>(values.size()) - kHpeqLeadValues);
    }
    TraceRun(trace, slot, kHpeqCoefs, capacity - kHpeqCoefs, *table, event.table.index, 16, written);
    event.end = slot.base + kHpeqCoefs + 2 * static_cast<size_t>(values.size());
    return QVRCS_OK;
  }

  // Long form: each channel cut to the first h taps, h being what the slot
  // holds after its header, c0 and c1 (128 for the 540-byte slot). The second
  // half starts in the middle of what follows c0 and c1; values missing from
  // a short table read as 0.
  const size_t headerHalfWords = kHpeqCoefs / 2 + kHpeqLeadValues;
  const size_t taps = capacity / 2 > headerHalfWords ? (capacity / 2 - headerHalfWords) / 2 : 0;
  const int64_t count = values.size();
  const auto lead = static_cast<int64_t>(kHpeqLeadValues);
  const size_t firstHalf = kHpeqLeadValues;
  const auto secondHalf = static_cast<size_t>(lead + (count - lead) / 2);  // truncates toward 0

  StoreI32(slot, kHpeqLength, AsWord(kHpeqMaxTaps));
  for (size_t i = 0; i < taps; ++i, at += 2) {
    StoreI16(slot, at, ValueOrZero(values, firstHalf + i));
  }
  for (size_t i = 0; i < taps; ++i, at += 2) {
    StoreI16(slot, at, ValueOrZero(values, secondHalf + i));
  }
  event.taps = static_cast<uint32_t>(taps);
  event.end = slot.base + at;
  return QVRCS_OK;
}

}  // namespace

bool QVRCS_PackUuid(const std::string& uuid, BlockView destination) {
  std::array<uint8_t, kUuidBytes> bytes{};
  size_t produced = 0;
  if (uuid.size() == kUuidTextLength) {
    size_t i = 0;
    while (i < uuid.size() && produced < kUuidBytes) {
      const int high = HexValue(uuid[i]);
      if (high < 0) {  // separators such as '-' are skipped
        ++i;
        continue;
      }
      const int low = i + 1 < uuid.size() ? HexValue(uuid[i + 1]) : -1;
      if (low < 0) break;  // a lone digit ends the scan
      bytes[produced++] = static_cast<uint8_t>(high << 4 | low);
      i += 2;
    }
  }
  // Sixteen bytes in text order, as four little-endian words.
  for (size_t w = 0; w < kUuidBytes / 4; ++w) {
    const uint32_t word = static_cast<uint32_t>(bytes[4 * w]) |
                          static_cast<uint32_t>(bytes[4 * w + 1]) << 8 |
                          static_cast<uint32_t>(bytes[4 * w + 2]) << 16 |
                          static_cast<uint32_t>(bytes[4 * w + 3]) << 24;
    StoreI32(destination, 4 * w, static_cast<int32_t>(word));
  }
  return produced == kUuidBytes;
}

bool QVRCS_UuidEqualsIgnoreCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    const auto ca = static_cast<unsigned char>(a[i]);
    const auto cb = static_cast<unsigned char>(b[i]);
    // ASCII folding only, whatever the locale.
    const auto ua = (ca >= 'a' && ca <= 'z') ? ca - ('a' - 'A') : ca;
    const auto ub = (cb >= 'a' && cb <= 'z') ? cb - ('a' - 'A') : cb;
    if (ua != ub) return false;
  }
  return true;
}

int32_t QVRCS_LoadRoom(const std::string& uuid, const ListeningModelList& models, BlockView slot,
                       size_t capacity, uint32_t sampleRate, TraceObserver* trace) {
  if (uuid.empty()) {
    if (trace != nullptr) {
      TraceEvent event = LocatorEvent(ModelMatch<roomModel>{}, uuid);
      event.status = QVRCS_NOTHING_TO_LOAD;
      trace->OnEvent(event);
    }
    return QVRCS_NOTHING_TO_LOAD;
  }

  return LoadLocated<roomModel>(uuid, models, RoomsOf, capacity, trace,
                                       [&](const roomModel* room, TraceEvent& event) {
                                         return LoadRoom(room, slot, capacity, sampleRate, event, trace);
                                       });
}

int32_t QVRCS_LoadHeadphoneEq(const std::string& uuid, const ListeningModelList& models,
                              BlockView slot, size_t capacity, uint32_t sampleRate,
                              TraceObserver* trace) {
  // No shortcut for an empty uuid: it matches a headphone EQ without one.
  return LoadLocated<headphoneEq>(uuid, models, HeadphonesOf, capacity, trace,
                                         [&](const headphoneEq* eq, TraceEvent& event) {
                                           return LoadHeadphoneEq(eq, slot, capacity, sampleRate, event, trace);
                                         });
}

}  // namespace qvrcs
