// Blocks, coefficient tables, settings paths and byte checks shared by the
// converter tests (premix, postmix sections, block maps, the tool's explain).
#pragma once

#include <gtest/gtest.h>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "qvrcs/block_io.h"
#include "qvrcs/block_map.h"
#include "qvrcs/layout.h"
#include "qvrcs/qvrcs.h"
#include "qvrcs/templates.h"

namespace qvrcs::block_test {

using com::qvr::pb::coef::CoefTable;
using com::qvr::pb::korva_v1_1::KorvaSettings;
using TableList = google::protobuf::RepeatedPtrField<CoefTable>;

constexpr uint32_t kRate = 48000;
constexpr int32_t kRate48k = 48000;
constexpr int32_t kRate44k = 44100;
constexpr uint8_t kFill = 0xA5;  // marks bytes that must stay as they are

// A block on the heap, exactly its size, so that a stray store past its end
// is caught by AddressSanitizer.
template <size_t N>
struct Block {
  std::unique_ptr<std::array<uint8_t, N>> bytes = std::make_unique<std::array<uint8_t, N>>();

  explicit Block(uint8_t fill = kFill) { bytes->fill(fill); }
  explicit Block(const std::array<uint8_t, N>& from) { *bytes = from; }
  Block(const Block& other) : Block(*other.bytes) {}

  BlockView View() const { return BlockView{bytes->data(), N, 0}; }
  int32_t I32(size_t offset) const { return LoadI32(bytes->data(), N, offset); }
  int16_t I16(size_t offset) const { return LoadI16(bytes->data(), N, offset); }
  int32_t U16(size_t offset) const { return static_cast<uint16_t>(I16(offset)); }
  uint8_t operator[](size_t offset) const { return (*bytes)[offset]; }
};

using PremixBytes = Block<kPremixBlockSize>;
using PostmixBytes = Block<kPostmixBlockSize>;

template <size_t N>
int32_t I32(const std::array<uint8_t, N>& block, size_t offset) {
  return LoadI32(block.data(), N, offset);
}

// Offsets at which `block` differs from `reference`.
template <size_t N>
std::set<size_t> ChangedBytes(const Block<N>& block, const std::array<uint8_t, N>& reference) {
  std::set<size_t> changed;
  for (size_t i = 0; i < N; ++i) {
    if ((*block.bytes)[i] != reference[i]) changed.insert(i);
  }
  return changed;
}

// The byte offsets of the ranges [begin, end).
inline std::set<size_t> Bytes(std::initializer_list<std::pair<size_t, size_t>> ranges) {
  std::set<size_t> bytes;
  for (const auto& [begin, end] : ranges) {
    for (size_t i = begin; i < end; ++i) bytes.insert(i);
  }
  return bytes;
}
inline std::set<size_t> Bytes(size_t begin, size_t end) { return Bytes({{begin, end}}); }

// Every offset of `changed` lies in [begin, end).
inline bool AllWithin(const std::set<size_t>& changed, size_t begin, size_t end) {
  return changed.empty() || (*changed.begin() >= begin && *changed.rbegin() < end);
}

// Every offset of `changed` is one of `allowed`.
inline bool OnlyIn(const std::set<size_t>& changed, const std::set<size_t>& allowed) {
  for (size_t i : changed) {
    if (allowed.count(i) == 0) return false;
  }
  return true;
}

// Bytes [from, to) of two blocks are equal; names the first difference.
template <size_t N>
testing::AssertionResult SameBytes(const std::array<uint8_t, N>& actual, const std::array<uint8_t, N>& expected,
                                   size_t from, size_t to) {
  for (size_t i = from; i < to; ++i) {
    if (actual[i] != expected[i]) {
      return testing::AssertionFailure() << "first difference at byte " << i << " (range " << from << ".." << to
                                         << "): " << int{actual[i]} << " != " << int{expected[i]};
    }
  }
  return testing::AssertionSuccess();
}

// Every byte of [from, to) holds `value`.
template <size_t N>
testing::AssertionResult AllBytes(const Block<N>& block, size_t from, size_t to, uint8_t value) {
  for (size_t i = from; i < to; ++i) {
    if (block[i] != value) {
      return testing::AssertionFailure() << "byte " << i << " is " << int{block[i]} << ", expected " << int{value};
    }
  }
  return testing::AssertionSuccess();
}

// Little-endian u16 values from `offset` equal the low 16 bits of `values`.
template <size_t N>
testing::AssertionResult HalfWordsAre(const Block<N>& block, size_t offset, const std::vector<int32_t>& values) {
  for (size_t i = 0; i < values.size(); ++i) {
    const int32_t want = static_cast<uint16_t>(values[i]);
    if (block.U16(offset + 2 * i) != want) {
      return testing::AssertionFailure() << "half-word " << i << " at byte " << offset + 2 * i << " is "
                                         << block.U16(offset + 2 * i) << ", expected " << want;
    }
  }
  return testing::AssertionSuccess();
}

template <size_t N>
testing::AssertionResult WordsAre(const Block<N>& block, size_t offset, const std::vector<int32_t>& values) {
  for (size_t i = 0; i < values.size(); ++i) {
    if (block.I32(offset + 4 * i) != values[i]) {
      return testing::AssertionFailure() << "word " << i << " at byte " << offset + 4 * i << " is "
                                         << block.I32(offset + 4 * i) << ", expected " << values[i];
    }
  }
  return testing::AssertionSuccess();
}

// n values start, start + step, ...
inline std::vector<int32_t> Ramp(size_t n, int32_t start, int32_t step = 1) {
  std::vector<int32_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = start + static_cast<int32_t>(i) * step;
  return v;
}

// Values [first, first + count) of `v`.
inline std::vector<int32_t> Slice(const std::vector<int32_t>& v, size_t first, size_t count) {
  return std::vector<int32_t>(v.begin() + static_cast<long>(first), v.begin() + static_cast<long>(first + count));
}

// Appends a table with the values in coeff_16 or coeff_32; no `rate` means
// no sampleRate field at all.
inline CoefTable* AddTable16(TableList* list, std::optional<int32_t> rate, const std::vector<int32_t>& values) {
  CoefTable* t = list->Add();
  if (rate) t->set_samplerate(*rate);
  for (int32_t v : values) t->add_coeff_16(v);
  return t;
}

inline CoefTable* AddTable32(TableList* list, std::optional<int32_t> rate, const std::vector<int32_t>& values) {
  CoefTable* t = AddTable16(list, rate, {});
  for (int32_t v : values) t->add_coeff_32(v);
  return t;
}

// A block map path ("postmix.velmo.gorm.level", "premix.bypass_mode[3]")
// resolved through reflection, creating the records on the way.
struct PathTarget {
  google::protobuf::Message* message = nullptr;
  const google::protobuf::FieldDescriptor* field = nullptr;
  int index = -1;  // element index for a repeated field
};

inline PathTarget Resolve(google::protobuf::Message& root, const std::string& path) {
  google::protobuf::Message* message = &root;
  const std::vector<PathStep> steps = SplitFieldPath(path);
  for (size_t i = 0; i < steps.size(); ++i) {
    const auto* field = message->GetDescriptor()->FindFieldByName(steps[i].name);
    if (field == nullptr) return PathTarget{};
    if (i + 1 == steps.size()) return PathTarget{message, field, steps[i].index};
    if (field->cpp_type() != google::protobuf::FieldDescriptor::CPPTYPE_MESSAGE) return PathTarget{};
    message = message->GetReflection()->MutableMessage(message, field);
  }
  return PathTarget{};
}

// Sets the int32 field at `path`; false when the path names no such field.
inline bool SetByPath(google::protobuf::Message& root, const std::string& path, int32_t value) {
  const PathTarget t = Resolve(root, path);
  if (t.field == nullptr || t.field->cpp_type() != google::protobuf::FieldDescriptor::CPPTYPE_INT32 ||
      t.field->is_repeated() != (t.index >= 0)) {
    return false;
  }
  const auto* reflection = t.message->GetReflection();
  if (t.index < 0) {
    reflection->SetInt32(t.message, t.field, value);
    return true;
  }
  while (reflection->FieldSize(*t.message, t.field) <= t.index) reflection->AddInt32(t.message, t.field, 0);
  reflection->SetRepeatedInt32(t.message, t.field, t.index, value);
  return true;
}

}  // namespace qvrcs::block_test
