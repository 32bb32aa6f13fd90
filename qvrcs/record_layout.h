// Inner layout of the records that the room, headphone-EQ and AEQ loaders
// write into their slots of the postmix block. Offsets are relative to the
// first byte of the record (the slot's start, qvrcs/layout.h).
#pragma once

#include <cstddef>
#include <cstdint>

#include "qvrcs/layout.h"

namespace qvrcs {

// ---- Room record (multichannel, front and wide room slots) -------------------
constexpr size_t kRoomUuid = 0;  // 16 bytes, binary form of the textual uuid
constexpr size_t kRoomChannelMask = 16;
constexpr size_t kRoomNumPairs = 20;
constexpr size_t kRoomBrirLength = 24;
constexpr size_t kRoomSampleRate = 28;
constexpr size_t kRoomReverbGain = 32;
constexpr size_t kRoomReverbCut = 36;
constexpr size_t kRoomCoefs = 40;  // coeff_16 values as u16, as many as the table holds
// The coefficients a room slot of `capacity` bytes holds after its header.
constexpr size_t RoomValuesHeld(size_t capacity) { return capacity > kRoomCoefs ? (capacity - kRoomCoefs) / 2 : 0; }

// ---- Headphone equaliser record (540-byte slot) ------------------------------
// The table is read as c0, c1 and then two equal halves, one per channel.
constexpr size_t kHpeqUuid = 0;
constexpr size_t kHpeqSampleRate = 16;
constexpr size_t kHpeqLength = 20;
constexpr size_t kHpeqCoefs = 24;      // c0, c1, then the channel halves
constexpr size_t kHpeqLeadValues = 2;  // c0 and c1
// Taps per channel that the DSP takes; a longer filter is cut to this.
constexpr uint32_t kHpeqMaxTaps = 128;

// ---- AEQ record: two channel sections of kAeqChannelWords i32 words -----------
// Each section: order word, a -1 word, then the IIR coefficients.
constexpr size_t kAeqChannel0 = 0;
constexpr size_t kAeqChannel1 = kAeqChannelWords * 4;
constexpr size_t kAeqOrderWord = 0;
constexpr size_t kAeqMarkerWord = 4;
constexpr size_t kAeqCoefs = 8;
constexpr int32_t kAeqMarker = -1;
constexpr int32_t kAeqDefaultOrder = 24;  // a bank without iirOrder
constexpr size_t kAeqChannels = 2;
// Coefficient words a channel section has room for.
constexpr size_t kAeqChannelCoefs = kAeqChannelWords - kAeqCoefs / 4;

static_assert(kAeqChannels * kAeqChannel1 == kAeqRecordSize, "two channel sections");
static_assert(kAeqChannelCoefs == 334, "334 coefficient words per channel");

}  // namespace qvrcs
