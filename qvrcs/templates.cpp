// Descriptions of the two default blocks.
//
// The converted fields are named by their source path (the same names as the
// block maps of qvrcs/block_map.h) with their default value; the offsets come
// from the field-copy tables through those maps. The parts of the postmix
// block that no settings field feeds are written from the section offsets of
// qvrcs/layout.h. Every byte not named here is zero.
#include "qvrcs/templates.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "qvrcs/block_io.h"
#include "qvrcs/block_map.h"

namespace qvrcs {
namespace {

// Default of one field, by its path below a record. An array lists its slots
// in block order (for the per-channel arrays that is the DSP's channel order,
// not the element order of the tuning file).
struct Default {
  const char* field;
  std::array<int32_t, 7> values;
};

// Reserved half-words hold the bytes CC CC in both templates.
constexpr int32_t kReservedFill = 0xCCCC;

constexpr Default kPremixDefaults[] = {
    {"dravo.enable", {0}},
    {"dravo.intensity_level", {214748368}},
    {"dravo.mode", {1}},
    {"dravo.input_gain", {1024}},
    {"dravo.output_gain", {2048}},
    {"dravo.lkfs_gain", {20644}},
    {"enhance2.master_volume", {0}},
    {"output_device", {0}},
    {"stream_gain", {0}},
    {"bypass_mode", {1, 0, 0, 1, 1}},
    {"stream_gain_downstream", {0}},
    {"headroom_limit", {0}},
    {"headroom_ratio", {32768}},
};

// Both blocks' Enhance2 sections; only master_volume differs, so each block
// gives its own.
constexpr Default kEnhance2Defaults[] = {
    {"mode", {0}},
    {"mv_downstream", {1}},
    {"target_spl", {85}},
    {"system_spl", {75}},
    {"system_calib_level", {-66}},
    {"hi_freq_compensation", {5}},
    {"lo_freq_compensation", {5}},
    {"htest", {-628, -710, -710, -750, -770, -730, -604}},
    {"ref_htest", {172000, 90000, 90000, 50000, 10000, 10000, 86036}},
    {"content_dr", {1}},
    {"max_lf_boost", {10}},
};

constexpr Default kPostmixControlDefaults[] = {
    {"output_device", {0}},
    {"postmix_gain", {0}},
    {"hpf_enable", {0}},
    {"limiter", {1}},
    {"zell_stereo_mode", {-1}},
    {"zell_multi_ch", {0}},
    {"zell_input_gain", {-3980, 0, 0, 0, 0, 0}},
    {"bypass_hpeq", {0, 1, 1, 0, 1, 1}},
    {"aeq_enable", {1, 0, 0, 0, 0, 0}},
    {"dc_cut_enable", {1}},
    {"bypass_mode", {1, 0, 0, 1, 1}},
    {"limiter_master_vol", {0}},
    {"bypass_gain", {0}},

    {"velmo.mox3d.enable", {1}},
    {"velmo.mox3d.mode", {2}},
    {"velmo.mox3d.hp_enable", {0}},
    {"velmo.mox3d.hi_bit_rate", {1}},
    {"velmo.mox3d.input_gain", {32767}},
    {"velmo.mox3d.output_gain", {32767}},
    {"velmo.mox3d.bypass_gain", {32767}},
    {"velmo.mox3d.space_level", {26214}},
    {"velmo.mox3d.center_level", {21299}},
    {"velmo.ombra.enable", {1}},
    {"velmo.ombra.hs_hpf_enable", {0}},
    {"velmo.ombra.input_gain", {32767}},
    {"velmo.ombra.bypass_gain", {32767}},
    {"velmo.ombra.center_boost_level", {20480}},
    {"velmo.ombra.speaker_separation_level", {8913}},
    {"velmo.gorm.enable", {1}},
    {"velmo.gorm.mode", {1}},
    {"velmo.gorm.li_enable", {1}},
    {"velmo.gorm.sa_enable", {1}},
    {"velmo.gorm.speaker_size", {2}},
    {"velmo.gorm.analysis_size", {1}},
    {"velmo.gorm.output_option", {0}},
    {"velmo.gorm.input_gain", {32767}},
    {"velmo.gorm.output_gain", {32767}},
    {"velmo.gorm.bypass_gain", {32767}},
    {"velmo.gorm.level", {13107}},
    {"velmo.gorm.comp_level", {8192}},
    {"velmo.gorm.ref_gain", {4096}},
    {"velmo.gorm.bass_clarity_level", {16384}},
    {"velmo.enable", {0}},
    {"velmo.enhance_mode", {1}},
    {"velmo.crossover_enable", {1}},
    {"velmo.hpf_enable", {0}},
    {"velmo.def_enable", {1}},
    {"velmo.focus_enable", {1}},
    {"velmo.input_gain", {8192}},
    {"velmo.output_gain", {2048}},
    {"velmo.bypass_gain", {8192}},
    {"velmo.def_level", {3277}},
    {"velmo.focus_level", {6554}},

    {"geq10b.enable", {0}},
    {"geq10b.input_gain", {32767}},
    {"geq10b.band0_gain", {4096}},
    {"geq10b.band1_gain", {4096}},
    {"geq10b.band2_gain", {4096}},
    {"geq10b.band3_gain", {4096}},
    {"geq10b.band4_gain", {4096}},
    {"geq10b.band5_gain", {4096}},
    {"geq10b.band6_gain", {4096}},
    {"geq10b.band7_gain", {4096}},
    {"geq10b.band8_gain", {4096}},
    {"geq10b.band9_gain", {4096}},

    {"aeq.enable", {0}},
    {"aeq.input_gain", {32767}},
    {"aeq.output_gain", {32767}},
    {"aeq.bypass_gain", {32767}},

    {"enhance2.master_volume", {-120}},

    {"zell.downmix", {1}},
    {"zell.super_stereo", {0}},
    {"zell.input_gain", {0}},
    {"zell.bypass_reverb", {0}},
    {"zell.bypass_conv", {0}},
    {"zell.bypass_hpeq", {1}},
};

// Bytes 412..427: written by no conversion.
constexpr int32_t kPostmixFixedWordValues[] = {3000, 9540, 5000, 5000};

// AEQ record: both channel sections hold the same pass-through filter bank,
// the order 24 and a -1, then 13 unity sections; the rest of the section is zero.
constexpr int32_t kAeqPassThroughHeader[] = {24, -1};
constexpr int32_t kAeqUnitySection[] = {2, 1073741824 /* 0x40000000 */, 0, 0, 0, 0};
constexpr size_t kAeqUnitySections = 13;
static_assert(sizeof(kAeqPassThroughHeader) + kAeqUnitySections * sizeof(kAeqUnitySection) <=
              4 * kAeqChannelWords);

// Gorm coefficient section.
constexpr int32_t kGormDefaultSpeakerSize = 20;
constexpr int32_t kGormDefaultAnalysisSize = 20;
constexpr int32_t kGormDefaultFilter[] = {2814040,     2141855616, -506586,  2146125056,
                                          -1072390720, -3698533,   2143796224, -1070076928};
constexpr int32_t kGormDefaultTail[] = {2,          296389504,   -594970624, 298597504,
                                        2139484928, -1065802048, 3,          1930561280};
// The filter is given twice, then the tail.
static_assert(2 * std::size(kGormDefaultFilter) + std::size(kGormDefaultTail) == kGormMaxCoefs);

template <size_t N>
void StoreWords(BlockView view, size_t offset, const int32_t (&words)[N]) {
  for (size_t i = 0; i < N; ++i) StoreI32(view, offset + 4 * i, words[i]);
}

// Writes the defaults of converted fields, by path, at the offsets a block
// map gives, and keeps track of which map entries got one.
class FieldDefaults {
 public:
  FieldDefaults(std::vector<FieldInfo> map, BlockView block)
      : map_(std::move(map)), block_(block), done_(map_.size(), false) {
    // Map entries by field: a scalar "path", or the slots "path[i]" of an
    // array under their common "path". Sorted once (views into the map's own
    // paths, no copies), so that each default is found by a binary search;
    // the sort is stable, so an array's slots stay in offset order.
    fields_.reserve(map_.size());
    for (size_t i = 0; i < map_.size(); ++i) {
      const std::string_view path = map_[i].path;
      fields_.push_back(Entry{path.substr(0, path.find('[')), i});
    }
    std::stable_sort(fields_.begin(), fields_.end(),
                     [](const Entry& a, const Entry& b) { return a.field < b.field; });
  }

  template <size_t N>
  void Apply(const std::string& record, const Default (&defaults)[N]) {
    for (const Default& entry : defaults) {
      path_.assign(record).append(".").append(entry.field);
      Apply(path_, entry.values);
    }
  }

  // The reserved half-words, the one every conversion clears included.
  void Reserved() {
    for (size_t i = 0; i < map_.size(); ++i) {
      if (map_[i].kind == FieldKind::kSetting) continue;
      StoreI16(block_, map_[i].offset, kReservedFill);
      done_[i] = true;
    }
  }

  // True when every default named a field and every field got a default.
  bool Complete() const {
    for (bool done : done_) {
      if (!done) return false;
    }
    return ok_;
  }

 private:
  struct Entry {
    std::string_view field;  // the map entry's path without its "[i]"
    size_t index;            // into the map
  };

  void Apply(std::string_view path, const std::array<int32_t, 7>& values) {
    const auto [first, last] = std::equal_range(
        fields_.begin(), fields_.end(), Entry{path, 0},
        [](const Entry& a, const Entry& b) { return a.field < b.field; });
    if (first == last) {
      ok_ = false;
      return;
    }
    // The lowest offset among an array's slots: its first entry, the map
    // being in offset order.
    const size_t firstSlot = map_[first->index].offset;
    for (auto entry = first; entry != last; ++entry) {
      const FieldInfo& info = map_[entry->index];
      // A scalar takes the first value; an array slot the value of its
      // position from the array's lowest offset.
      const bool slotOfArray = info.path.size() != path.size();
      const size_t slot = slotOfArray ? (info.offset - firstSlot) / 4 : 0;
      if (slot >= values.size()) {
        ok_ = false;
        continue;
      }
      if (info.width == 16) {
        StoreI16(block_, info.offset, values[slot]);
      } else {
        StoreI32(block_, info.offset, values[slot]);
      }
      done_[entry->index] = true;
    }
  }

  std::vector<FieldInfo> map_;
  BlockView block_;
  std::vector<bool> done_;
  std::vector<Entry> fields_;  // by field, then map order
  std::string path_;           // the default being applied
  bool ok_ = true;
};

}  // namespace

bool BuildPremixTemplate(PremixBlock& block) {
  FieldDefaults fields(PremixFieldMap(), BlockView{block.data(), block.size(), 0});
  fields.Apply("premix", kPremixDefaults);
  fields.Apply("premix.enhance2", kEnhance2Defaults);
  fields.Reserved();
  return fields.Complete();
}

bool BuildPostmixTemplate(PostmixBlock& block) {
  const BlockView view{block.data(), block.size(), 0};
  FieldDefaults fields(PostmixControlFieldMap(), view);
  fields.Apply("postmix", kPostmixControlDefaults);
  fields.Apply("postmix.enhance2", kEnhance2Defaults);
  fields.Reserved();

  StoreWords(view, kPostmixFixedWords, kPostmixFixedWordValues);

  for (size_t channel = 0; 4 * kAeqChannelWords * channel < kAeqRecordSize; ++channel) {
    const BlockView section = view.At(kAeqRecord + 4 * kAeqChannelWords * channel);
    StoreWords(section, 0, kAeqPassThroughHeader);
    for (size_t s = 0; s < kAeqUnitySections; ++s) {
      StoreWords(section, sizeof(kAeqPassThroughHeader) + sizeof(kAeqUnitySection) * s,
                 kAeqUnitySection);
    }
  }

  StoreI32(view, kGormSpeakerSize, kGormDefaultSpeakerSize);
  StoreI32(view, kGormAnalysisSize, kGormDefaultAnalysisSize);
  StoreWords(view, kGormCoefs, kGormDefaultFilter);
  StoreWords(view, kGormCoefs + sizeof(kGormDefaultFilter), kGormDefaultFilter);
  StoreWords(view, kGormCoefs + 2 * sizeof(kGormDefaultFilter), kGormDefaultTail);
  return fields.Complete();
}

}  // namespace qvrcs

const qvrcs::PremixBlock kPremixTemplate = [] {
  qvrcs::PremixBlock block{};
  qvrcs::BuildPremixTemplate(block);
  return block;
}();

const qvrcs::PostmixBlock kPostmixTemplate = [] {
  qvrcs::PostmixBlock block{};
  qvrcs::BuildPostmixTemplate(block);
  return block;
}();
