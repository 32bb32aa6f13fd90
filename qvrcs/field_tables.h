// Where each settings field goes inside its block section.
//
// This is the one place where the offset of a field inside its section is
// written. The converters copy through these tables, and the block maps
// (qvrcs/block_map.h) and the default templates (qvrcs/templates.cpp) are
// built from them. Section offsets come from qvrcs/layout.h.
//
// Within a table, entries follow the fields' numbers in the schema; a
// converter that has two tables for one message states the order of the two.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

#include "korva_v1_1.pb.h"
#include "qvrcs/field_copy.h"
#include "qvrcs/layout.h"

namespace qvrcs {

namespace pbtech = com::qvr::pb::tech;
namespace pbkorva = com::qvr::pb::korva_v1_1;

// ---- Dravo section (premix bytes 0..19) --------------------------------------
inline constexpr FieldCopyEntry<pbtech::Dravo> kDravoWordFields[] = {
    QVRCS_FIELD(pbtech::Dravo, enable, 0, 0),
    QVRCS_FIELD(pbtech::Dravo, intensity_level, 4, 214748368),
    QVRCS_FIELD(pbtech::Dravo, mode, 8, 1),
};
inline constexpr FieldCopyEntry<pbtech::Dravo> kDravoHalfWordFields[] = {
    QVRCS_FIELD(pbtech::Dravo, input_gain, 12, 1024),
    QVRCS_FIELD(pbtech::Dravo, output_gain, 14, 2048),
    QVRCS_FIELD(pbtech::Dravo, lkfs_gain, 16, 20644),
};
inline constexpr FieldCopyTable<pbtech::Dravo> kDravoWords{Width::k32, kDravoWordFields};
inline constexpr FieldCopyTable<pbtech::Dravo> kDravoHalfWords{Width::k16, kDravoHalfWordFields};
// Reserved half-word: never written, the DSP gets the template's bytes.
inline constexpr size_t kDravoReserved = 18;

// ---- Enhance2 section (96 bytes; premix byte 20, postmix byte 292) -----------
inline constexpr size_t kEnhance2SectionSize = 96;
inline constexpr FieldCopyEntry<pbtech::Enhance2> kEnhance2WordFields[] = {
    QVRCS_FIELD(pbtech::Enhance2, mode, 0, 0),
    QVRCS_FIELD(pbtech::Enhance2, mv_downstream, 4, 1),
    QVRCS_FIELD(pbtech::Enhance2, master_volume, 8, 0),
    QVRCS_FIELD(pbtech::Enhance2, target_spl, 12, 85),
    QVRCS_FIELD(pbtech::Enhance2, system_spl, 16, 75),
    QVRCS_FIELD(pbtech::Enhance2, system_calib_level, 20, -66),
    QVRCS_FIELD(pbtech::Enhance2, hi_freq_compensation, 24, 5),
    QVRCS_FIELD(pbtech::Enhance2, lo_freq_compensation, 28, 5),
    QVRCS_FIELD(pbtech::Enhance2, content_dr, 88, 1),
    QVRCS_FIELD(pbtech::Enhance2, max_lf_boost, 92, 10),
};
inline constexpr FieldCopyTable<pbtech::Enhance2> kEnhance2Words{Width::k32, kEnhance2WordFields};
inline constexpr RepeatedCopyEntry<pbtech::Enhance2> kEnhance2Htest =
    QVRCS_REPEATED(pbtech::Enhance2, htest, 32, nullptr, {-628, -710, -710, -750, -770, -730, -604});
// Each element is checked for sign as it is stored (see QVRCS_ConvertEnhance2).
inline constexpr RepeatedCopyEntry<pbtech::Enhance2> kEnhance2RefHtest =
    QVRCS_REPEATED(pbtech::Enhance2, ref_htest, 60, nullptr,
                   {172000, 90000, 90000, 50000, 10000, 10000, 86036});
// `limiter` has no slot in the section and is not carried.

// ---- Premix stage words (premix block, from byte 0) --------------------------
inline constexpr FieldCopyEntry<pbkorva::Premix> kPremixWordFields[] = {
    QVRCS_FIELD(pbkorva::Premix, output_device, 116, 0),
    QVRCS_FIELD(pbkorva::Premix, stream_gain, 120, 0),
    QVRCS_FIELD(pbkorva::Premix, stream_gain_downstream, 144, 0),
    QVRCS_FIELD(pbkorva::Premix, headroom_limit, 148, 0),
    QVRCS_FIELD(pbkorva::Premix, headroom_ratio, 152, 32768),
};
inline constexpr FieldCopyTable<pbkorva::Premix> kPremixWords{Width::k32, kPremixWordFields};
inline constexpr RepeatedCopyEntry<pbkorva::Premix> kPremixBypassMode =
    QVRCS_REPEATED(pbkorva::Premix, bypass_mode, 124, nullptr, {1, 0, 0, 1, 1});

// ---- Postmix control words (postmix block, from byte 0) ----------------------
// The DSP orders its six channels differently from the tuning file: element i
// of a per-channel array goes to slot kPostmixChannelSlot[i] of its group.
inline constexpr uint8_t kPostmixChannelSlot[] = {4, 1, 2, 0, 3, 5};
inline constexpr uint8_t kPostmixChannels = static_cast<uint8_t>(std::size(kPostmixChannelSlot));

inline constexpr FieldCopyEntry<pbkorva::Postmix> kPostmixWordFields[] = {
    QVRCS_FIELD(pbkorva::Postmix, output_device, 0, 0),
    QVRCS_FIELD(pbkorva::Postmix, postmix_gain, 4, 0),
    QVRCS_FIELD(pbkorva::Postmix, hpf_enable, 8, 0),
    QVRCS_FIELD(pbkorva::Postmix, limiter, 12, 1),
    QVRCS_FIELD(pbkorva::Postmix, zell_stereo_mode, 16, -1),
    QVRCS_FIELD(pbkorva::Postmix, zell_multi_ch, 20, 0),
    QVRCS_FIELD(pbkorva::Postmix, dc_cut_enable, 96, 1),
    QVRCS_FIELD(pbkorva::Postmix, limiter_master_vol, 120, 0),
    QVRCS_FIELD(pbkorva::Postmix, bypass_gain, 124, 0),
};
inline constexpr FieldCopyTable<pbkorva::Postmix> kPostmixWords{Width::k32, kPostmixWordFields};
inline constexpr RepeatedCopyEntry<pbkorva::Postmix> kPostmixChannelArrays[] = {
    QVRCS_REPEATED(pbkorva::Postmix, zell_input_gain, 24, kPostmixChannelSlot, {-3980, 0, 0, 0, 0, 0}),
    QVRCS_REPEATED(pbkorva::Postmix, bypass_hpeq, 48, kPostmixChannelSlot, {0, 1, 1, 0, 1, 1}),
    QVRCS_REPEATED(pbkorva::Postmix, aeq_enable, 72, kPostmixChannelSlot, {1, 0, 0, 0, 0, 0}),
};
inline constexpr RepeatedCopyEntry<pbkorva::Postmix> kPostmixBypassMode =
    QVRCS_REPEATED(pbkorva::Postmix, bypass_mode, 100, nullptr, {1, 0, 0, 1, 1});

// ---- Velmo section (postmix bytes 128..251) ----------------------------------
// Mox3d subsection, Velmo section + kVelmoMox3dSubsection.
inline constexpr FieldCopyEntry<pbtech::Mox3d> kMox3dWordFields[] = {
    QVRCS_FIELD(pbtech::Mox3d, enable, 0, 1),
    QVRCS_FIELD(pbtech::Mox3d, mode, 4, 2),
    QVRCS_FIELD(pbtech::Mox3d, hp_enable, 8, 0),
    QVRCS_FIELD(pbtech::Mox3d, hi_bit_rate, 12, 1),
};
inline constexpr FieldCopyEntry<pbtech::Mox3d> kMox3dHalfWordFields[] = {
    QVRCS_FIELD(pbtech::Mox3d, input_gain, 16, 32767),
    QVRCS_FIELD(pbtech::Mox3d, output_gain, 18, 32767),
    QVRCS_FIELD(pbtech::Mox3d, bypass_gain, 20, 32767),
    QVRCS_FIELD(pbtech::Mox3d, space_level, 22, 26214),
    QVRCS_FIELD(pbtech::Mox3d, center_level, 24, 21299),
};
inline constexpr FieldCopyTable<pbtech::Mox3d> kMox3dWords{Width::k32, kMox3dWordFields};
inline constexpr FieldCopyTable<pbtech::Mox3d> kMox3dHalfWords{Width::k16, kMox3dHalfWordFields};
inline constexpr size_t kMox3dReserved = 26;

// Ombra subsection, Velmo section + kVelmoOmbraSubsection.
inline constexpr FieldCopyEntry<pbtech::Ombra> kOmbraWordFields[] = {
    QVRCS_FIELD(pbtech::Ombra, enable, 0, 1),
    QVRCS_FIELD(pbtech::Ombra, hs_hpf_enable, 4, 0),
};
inline constexpr FieldCopyEntry<pbtech::Ombra> kOmbraHalfWordFields[] = {
    QVRCS_FIELD(pbtech::Ombra, input_gain, 8, 32767),
    QVRCS_FIELD(pbtech::Ombra, bypass_gain, 10, 32767),
    QVRCS_FIELD(pbtech::Ombra, center_boost_level, 12, 20480),
    QVRCS_FIELD(pbtech::Ombra, speaker_separation_level, 14, 8913),
};
inline constexpr FieldCopyTable<pbtech::Ombra> kOmbraWords{Width::k32, kOmbraWordFields};
inline constexpr FieldCopyTable<pbtech::Ombra> kOmbraHalfWords{Width::k16, kOmbraHalfWordFields};

// Gorm subsection, Velmo section + kVelmoGormSubsection.
inline constexpr FieldCopyEntry<pbtech::Gorm> kGormWordFields[] = {
    QVRCS_FIELD(pbtech::Gorm, enable, 0, 1),
    QVRCS_FIELD(pbtech::Gorm, mode, 4, 1),
    QVRCS_FIELD(pbtech::Gorm, li_enable, 8, 1),
    QVRCS_FIELD(pbtech::Gorm, sa_enable, 12, 1),
    QVRCS_FIELD(pbtech::Gorm, speaker_size, 16, 2),
    QVRCS_FIELD(pbtech::Gorm, analysis_size, 20, 1),
    QVRCS_FIELD(pbtech::Gorm, output_option, 24, 0),
};
inline constexpr FieldCopyEntry<pbtech::Gorm> kGormHalfWordFields[] = {
    QVRCS_FIELD(pbtech::Gorm, input_gain, 28, 32767),
    QVRCS_FIELD(pbtech::Gorm, output_gain, 30, 32767),
    QVRCS_FIELD(pbtech::Gorm, bypass_gain, 32, 32767),
    QVRCS_FIELD(pbtech::Gorm, level, 34, 13107),
    QVRCS_FIELD(pbtech::Gorm, comp_level, 36, 8192),
    QVRCS_FIELD(pbtech::Gorm, ref_gain, 38, 4096),
    QVRCS_FIELD(pbtech::Gorm, bass_clarity_level, 40, 16384),
};
inline constexpr FieldCopyTable<pbtech::Gorm> kGormWords{Width::k32, kGormWordFields};
inline constexpr FieldCopyTable<pbtech::Gorm> kGormHalfWords{Width::k16, kGormHalfWordFields};
inline constexpr size_t kGormReserved = 42;

// The suite's own settings, relative to the Velmo section.
inline constexpr FieldCopyEntry<pbtech::Velmo> kVelmoWordFields[] = {
    QVRCS_FIELD(pbtech::Velmo, enable, 88, 0),
    QVRCS_FIELD(pbtech::Velmo, enhance_mode, 92, 1),
    QVRCS_FIELD(pbtech::Velmo, crossover_enable, 96, 1),
    QVRCS_FIELD(pbtech::Velmo, hpf_enable, 100, 0),
    QVRCS_FIELD(pbtech::Velmo, def_enable, 104, 1),
    QVRCS_FIELD(pbtech::Velmo, focus_enable, 108, 1),
};
inline constexpr FieldCopyEntry<pbtech::Velmo> kVelmoHalfWordFields[] = {
    QVRCS_FIELD(pbtech::Velmo, input_gain, 112, 8192),
    QVRCS_FIELD(pbtech::Velmo, output_gain, 114, 2048),
    QVRCS_FIELD(pbtech::Velmo, bypass_gain, 116, 8192),
    QVRCS_FIELD(pbtech::Velmo, def_level, 118, 3277),
    QVRCS_FIELD(pbtech::Velmo, focus_level, 120, 6554),
};
inline constexpr FieldCopyTable<pbtech::Velmo> kVelmoWords{Width::k32, kVelmoWordFields};
inline constexpr FieldCopyTable<pbtech::Velmo> kVelmoHalfWords{Width::k16, kVelmoHalfWordFields};
inline constexpr size_t kVelmoReserved = 122;

// ---- Geq10b section (postmix bytes 252..279) ---------------------------------
inline constexpr FieldCopyEntry<pbtech::Geq10b> kGeq10bWordFields[] = {
    QVRCS_FIELD(pbtech::Geq10b, enable, 0, 0),
};
inline constexpr FieldCopyEntry<pbtech::Geq10b> kGeq10bHalfWordFields[] = {
    QVRCS_FIELD(pbtech::Geq10b, input_gain, 4, 32767),
    QVRCS_FIELD(pbtech::Geq10b, band0_gain, 6, 4096),
    QVRCS_FIELD(pbtech::Geq10b, band1_gain, 8, 4096),
    QVRCS_FIELD(pbtech::Geq10b, band2_gain, 10, 4096),
    QVRCS_FIELD(pbtech::Geq10b, band3_gain, 12, 4096),
    QVRCS_FIELD(pbtech::Geq10b, band4_gain, 14, 4096),
    QVRCS_FIELD(pbtech::Geq10b, band5_gain, 16, 4096),
    QVRCS_FIELD(pbtech::Geq10b, band6_gain, 18, 4096),
    QVRCS_FIELD(pbtech::Geq10b, band7_gain, 20, 4096),
    QVRCS_FIELD(pbtech::Geq10b, band8_gain, 22, 4096),
    QVRCS_FIELD(pbtech::Geq10b, band9_gain, 24, 4096),
};
inline constexpr FieldCopyTable<pbtech::Geq10b> kGeq10bWords{Width::k32, kGeq10bWordFields};
inline constexpr FieldCopyTable<pbtech::Geq10b> kGeq10bHalfWords{Width::k16, kGeq10bHalfWordFields};
// Reserved half-word that every conversion sets to 0, with or without geq10b
// (the template holds CC CC there, unlike the other reserved half-words).
inline constexpr size_t kGeq10bAlwaysZero = 26;

// ---- Aeq section (postmix bytes 280..291) ------------------------------------
inline constexpr FieldCopyEntry<pbtech::Aeq> kAeqWordFields[] = {
    QVRCS_FIELD(pbtech::Aeq, enable, 0, 0),
};
inline constexpr FieldCopyEntry<pbtech::Aeq> kAeqHalfWordFields[] = {
    QVRCS_FIELD(pbtech::Aeq, input_gain, 4, 32767),
    QVRCS_FIELD(pbtech::Aeq, output_gain, 6, 32767),
    QVRCS_FIELD(pbtech::Aeq, bypass_gain, 8, 32767),
};
inline constexpr FieldCopyTable<pbtech::Aeq> kAeqWords{Width::k32, kAeqWordFields};
inline constexpr FieldCopyTable<pbtech::Aeq> kAeqHalfWords{Width::k16, kAeqHalfWordFields};
inline constexpr size_t kAeqReserved = 10;

// ---- Zell section (postmix bytes 388..411) -----------------------------------
inline constexpr FieldCopyEntry<pbtech::Zell> kZellWordFields[] = {
    QVRCS_FIELD(pbtech::Zell, downmix, 0, 1),
    QVRCS_FIELD(pbtech::Zell, super_stereo, 4, 0),
    QVRCS_FIELD(pbtech::Zell, input_gain, 8, 0),
    QVRCS_FIELD(pbtech::Zell, bypass_reverb, 12, 0),
    QVRCS_FIELD(pbtech::Zell, bypass_conv, 16, 0),
    QVRCS_FIELD(pbtech::Zell, bypass_hpeq, 20, 1),
};
inline constexpr FieldCopyTable<pbtech::Zell> kZellWords{Width::k32, kZellWordFields};
// `limiter` and `super_stereo_coef` have no slot in the section and are not carried.

// ---- Compile-time checks -----------------------------------------------------
// One past the last byte a table writes.
template <class Msg>
constexpr size_t TableEnd(const FieldCopyTable<Msg>& table) {
  size_t end = 0;
  for (size_t i = 0; i < table.count; ++i) {
    const size_t last = table.entries[i].offset + static_cast<size_t>(table.width) / 8;
    if (last > end) end = last;
  }
  return end;
}
template <class Msg>
constexpr size_t TableEnd(const RepeatedCopyEntry<Msg>& entry) {
  return entry.offset + 4u * entry.slots;
}

constexpr bool SameName(const char* a, const char* b) {
  while (*a != '\0' && *a == *b) {
    ++a;
    ++b;
  }
  return *a == *b;
}

// Offset of the entry for the field `name`, or SIZE_MAX.
template <class Msg>
constexpr size_t OffsetOf(const FieldCopyTable<Msg>& table, const char* name) {
  for (size_t i = 0; i < table.count; ++i) {
    if (SameName(table.entries[i].name, name)) return table.entries[i].offset;
  }
  return SIZE_MAX;
}

// The word in which a zell_multi_ch of -1 is rewritten to 0.
inline constexpr size_t kZellMultiChWord = OffsetOf(kPostmixWords, "zell_multi_ch");
static_assert(kZellMultiChWord != SIZE_MAX, "zell_multi_ch is in the control words");

static_assert(kDravoReserved + 2 == kPremixEnhance2Section - kPremixDravoSection);
static_assert(TableEnd(kDravoHalfWords) == kDravoReserved);
static_assert(TableEnd(kEnhance2Words) == kEnhance2SectionSize);
static_assert(TableEnd(kEnhance2Htest) == kEnhance2RefHtest.offset);
static_assert(TableEnd(kPremixWords) == kPremixBlockSize);
static_assert(TableEnd(kPremixBypassMode) <= kPremixBlockSize);
static_assert(TableEnd(kPostmixWords) == kPostmixVelmoSection);
static_assert(TableEnd(kMox3dHalfWords) == kMox3dReserved);
static_assert(kMox3dReserved + 2 == kVelmoOmbraSubsection - kVelmoMox3dSubsection);
static_assert(TableEnd(kOmbraHalfWords) == kVelmoGormSubsection - kVelmoOmbraSubsection);
static_assert(TableEnd(kGormHalfWords) == kGormReserved);
static_assert(kVelmoGormSubsection + kGormReserved + 2 == kVelmoWordFields[0].offset);
static_assert(TableEnd(kVelmoHalfWords) == kVelmoReserved);
static_assert(kPostmixVelmoSection + kVelmoReserved + 2 == kPostmixGeq10bSection);
static_assert(TableEnd(kGeq10bHalfWords) == kGeq10bAlwaysZero);
static_assert(kPostmixGeq10bSection + kGeq10bAlwaysZero + 2 == kPostmixAeqSection);
static_assert(TableEnd(kAeqHalfWords) == kAeqReserved);
static_assert(kPostmixAeqSection + kAeqReserved + 2 == kPostmixEnhance2Section);
static_assert(kPostmixEnhance2Section + kEnhance2SectionSize == kPostmixZellSection);
static_assert(kPostmixZellSection + TableEnd(kZellWords) == kPostmixControlSize);

// ---- The blocks as the tables describe them ----------------------------------
// One walk over every field table and reserved half-word of a block, at its
// place in the block, for the builders that need all of them: the default
// blocks (qvrcs/templates.cpp) and the field maps of the tools
// (qvrcs/block_map.cpp). The visitor takes
//   Fields(record, section, table)  a FieldCopyTable or RepeatedCopyEntry
//   Reserved(offset)                a half-word no conversion writes
//   AlwaysZero(offset)              a reserved half-word every conversion clears
// where `record` is the settings record's path in the tuning file.

template <class Visitor>
constexpr void VisitEnhance2(Visitor& v, const char* record, size_t section) {
  v.Fields(record, section, kEnhance2Words);
  v.Fields(record, section, kEnhance2Htest);
  v.Fields(record, section, kEnhance2RefHtest);
}

template <class Visitor>
constexpr void VisitPremixBlock(Visitor& v) {
  v.Fields("premix.dravo", kPremixDravoSection, kDravoWords);
  v.Fields("premix.dravo", kPremixDravoSection, kDravoHalfWords);
  v.Reserved(kPremixDravoSection + kDravoReserved);
  VisitEnhance2(v, "premix.enhance2", kPremixEnhance2Section);
  v.Fields("premix", 0, kPremixWords);
  v.Fields("premix", 0, kPremixBypassMode);
}

// The control section (bytes 0 .. kPostmixControlSize) of the postmix block.
template <class Visitor>
constexpr void VisitPostmixControls(Visitor& v) {
  v.Fields("postmix", 0, kPostmixWords);
  for (const auto& array : kPostmixChannelArrays) v.Fields("postmix", 0, array);
  v.Fields("postmix", 0, kPostmixBypassMode);

  const size_t mox3d = kPostmixVelmoSection + kVelmoMox3dSubsection;
  v.Fields("postmix.velmo.mox3d", mox3d, kMox3dWords);
  v.Fields("postmix.velmo.mox3d", mox3d, kMox3dHalfWords);
  v.Reserved(mox3d + kMox3dReserved);
  const size_t ombra = kPostmixVelmoSection + kVelmoOmbraSubsection;
  v.Fields("postmix.velmo.ombra", ombra, kOmbraWords);
  v.Fields("postmix.velmo.ombra", ombra, kOmbraHalfWords);
  const size_t gorm = kPostmixVelmoSection + kVelmoGormSubsection;
  v.Fields("postmix.velmo.gorm", gorm, kGormWords);
  v.Fields("postmix.velmo.gorm", gorm, kGormHalfWords);
  v.Reserved(gorm + kGormReserved);
  v.Fields("postmix.velmo", kPostmixVelmoSection, kVelmoWords);
  v.Fields("postmix.velmo", kPostmixVelmoSection, kVelmoHalfWords);
  v.Reserved(kPostmixVelmoSection + kVelmoReserved);

  v.Fields("postmix.geq10b", kPostmixGeq10bSection, kGeq10bWords);
  v.Fields("postmix.geq10b", kPostmixGeq10bSection, kGeq10bHalfWords);
  v.AlwaysZero(kPostmixGeq10bSection + kGeq10bAlwaysZero);
  v.Fields("postmix.aeq", kPostmixAeqSection, kAeqWords);
  v.Fields("postmix.aeq", kPostmixAeqSection, kAeqHalfWords);
  v.Reserved(kPostmixAeqSection + kAeqReserved);
  VisitEnhance2(v, "postmix.enhance2", kPostmixEnhance2Section);
  v.Fields("postmix.zell", kPostmixZellSection, kZellWords);
}

}  // namespace qvrcs
