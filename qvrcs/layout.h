// Where each section lies in the DSP's two parameter blocks.
//
// Offsets of whole sections are kept here, once; the offsets of individual
// settings fields inside a section live in the field-copy tables
// (qvrcs/field_tables.*), also once.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace qvrcs {

// ---- Premix block: 156 bytes -------------------------------------------------
constexpr size_t kPremixBlockSize = 156;
constexpr size_t kPremixDravoSection = 0;      // bytes 0..19 (18..19 reserved, CC CC)
constexpr size_t kPremixEnhance2Section = 20;  // bytes 20..115

// ---- Postmix block: 61468 bytes ----------------------------------------------
constexpr size_t kPostmixBlockSize = 61468;

// Control section, bytes 0..411.
constexpr size_t kPostmixControlSize = 412;
constexpr size_t kPostmixVelmoSection = 128;     // bytes 128..251
constexpr size_t kVelmoMox3dSubsection = 0;      // relative to the Velmo section
constexpr size_t kVelmoOmbraSubsection = 28;     // relative to the Velmo section
constexpr size_t kVelmoGormSubsection = 44;      // relative to the Velmo section
constexpr size_t kPostmixGeq10bSection = 252;    // bytes 252..279
constexpr size_t kPostmixAeqSection = 280;       // bytes 280..291
constexpr size_t kPostmixEnhance2Section = 292;  // bytes 292..387
constexpr size_t kPostmixZellSection = 388;      // bytes 388..411

// Four words that no conversion writes (template only), bytes 412..427.
constexpr size_t kPostmixFixedWords = 412;

// Room slots and the headphone equaliser slot.
constexpr size_t kMultichRoomSlot = 428;
constexpr size_t kMultichRoomCapacity = 32840;
constexpr size_t kFrontRoomSlot = 33268;
constexpr size_t kFrontRoomCapacity = 12340;
constexpr size_t kWideRoomSlot = 45608;
constexpr size_t kWideRoomCapacity = 12340;
constexpr size_t kHeadphoneEqSlot = 57948;
constexpr size_t kHeadphoneEqCapacity = 540;

// High-pass filter: order word, then up to 20 i32 coefficients.
constexpr size_t kHpfOrder = 58488;
constexpr size_t kHpfCoefs = 58492;
constexpr size_t kHpfMaxCoefs = 20;

// AEQ record: two channel sections of 336 i32 words.
constexpr size_t kAeqRecord = 58572;
constexpr size_t kAeqRecordSize = 2688;
constexpr size_t kAeqChannelWords = 336;

// Velmo high-pass: order word, then up to 20 u16 coefficients.
constexpr size_t kVelmoHpfOrder = 61260;
constexpr size_t kVelmoHpfCoefs = 61264;
constexpr size_t kVelmoHpfMaxCoefs = 20;

// Velmo crossover: order word, then 14 u16 low-pass and 14 u16 high-pass.
constexpr size_t kVelmoXoverOrder = 61304;
constexpr size_t kVelmoXoverLpfCoefs = 61308;
constexpr size_t kVelmoXoverHpfCoefs = 61336;
constexpr size_t kVelmoXoverCoefs = 14;

// Gorm: speaker size, analysis size, then 24 i32 coefficients to the block's end.
constexpr size_t kGormSpeakerSize = 61364;
constexpr size_t kGormAnalysisSize = 61368;
constexpr size_t kGormCoefs = 61372;
constexpr size_t kGormMaxCoefs = 24;

static_assert(kGormCoefs + 4 * kGormMaxCoefs == kPostmixBlockSize, "Gorm ends the block");
static_assert(kAeqRecord + kAeqRecordSize == kVelmoHpfOrder, "AEQ record precedes Velmo HPF");
static_assert(kMultichRoomSlot + kMultichRoomCapacity == kFrontRoomSlot, "room slots are contiguous");
static_assert(kFrontRoomSlot + kFrontRoomCapacity == kWideRoomSlot, "room slots are contiguous");
static_assert(kWideRoomSlot + kWideRoomCapacity == kHeadphoneEqSlot, "room slots are contiguous");
static_assert(kHeadphoneEqSlot + kHeadphoneEqCapacity == kHpfOrder, "HPEQ precedes HPF");
static_assert(kHpfCoefs + 4 * kHpfMaxCoefs == kAeqRecord, "HPF precedes AEQ");

using PremixBlock = std::array<uint8_t, kPremixBlockSize>;
using PostmixBlock = std::array<uint8_t, kPostmixBlockSize>;

}  // namespace qvrcs
