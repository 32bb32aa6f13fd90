// Builders and byte checks shared by the postmix section tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qvrcs/block_io.h"
#include "qvrcs/layout.h"
#include "qvrcs/qvrcs.h"

namespace postmix_test {

using com::qvr::pb::coef::CoefTable;
using TableList = google::protobuf::RepeatedPtrField<CoefTable>;

constexpr uint32_t kRate = 48000;
constexpr int32_t kRate48k = 48000;
constexpr int32_t kRate44k = 44100;
constexpr uint8_t kFill = 0xA5;  // marks bytes that must stay untouched

// n values start, start + step, ...
inline std::vector<int32_t> Ramp(size_t n, int32_t start, int32_t step = 1) {
  std::vector<int32_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = start + static_cast<int32_t>(i) * step;
  return v;
}

// Appends a table with the values in coeff_16 or coeff_32; no `rate` means
// no sampleRate field at all.
inline CoefTable* AddTable16(TableList* list, std::optional<int32_t> rate,
                             const std::vector<int32_t>& values) {
  CoefTable* t = list->Add();
  if (rate) t->set_samplerate(*rate);
  for (int32_t v : values) t->add_coeff_16(v);
  return t;
}

inline CoefTable* AddTable32(TableList* list, std::optional<int32_t> rate,
                             const std::vector<int32_t>& values) {
  CoefTable* t = AddTable16(list, rate, {});
  for (int32_t v : values) t->add_coeff_32(v);
  return t;
}

// A whole postmix block on the heap, exactly its size, so that a store past
// its end is caught by AddressSanitizer.
struct Block {
  std::unique_ptr<qvrcs::PostmixBlock> bytes = std::make_unique<qvrcs::PostmixBlock>();

  explicit Block(uint8_t fill = kFill) { bytes->fill(fill); }
  explicit Block(const qvrcs::PostmixBlock& from) { *bytes = from; }
  Block(const Block& other) : Block(*other.bytes) {}

  qvrcs::BlockView View() const { return qvrcs::BlockView{bytes->data(), bytes->size(), 0}; }
  int32_t I32(size_t offset) const { return qvrcs::LoadI32(bytes->data(), bytes->size(), offset); }
  int32_t U16(size_t offset) const {
    return static_cast<uint16_t>(qvrcs::LoadI16(bytes->data(), bytes->size(), offset));
  }
  uint8_t operator[](size_t offset) const { return (*bytes)[offset]; }
};

// Bytes [from, to) of two blocks are equal; names the first difference.
inline testing::AssertionResult SameBytes(const qvrcs::PostmixBlock& actual,
                                          const qvrcs::PostmixBlock& expected, size_t from,
                                          size_t to) {
  for (size_t i = from; i < to; ++i) {
    if (actual[i] != expected[i]) {
      return testing::AssertionFailure()
             << "first difference at byte " << i << " (range " << from << ".." << to
             << "): " << int{actual[i]} << " != " << int{expected[i]};
    }
  }
  return testing::AssertionSuccess();
}

// Every byte of [from, to) holds `value`.
inline testing::AssertionResult AllBytes(const Block& block, size_t from, size_t to,
                                         uint8_t value) {
  for (size_t i = from; i < to; ++i) {
    if (block[i] != value) {
      return testing::AssertionFailure()
             << "byte " << i << " is " << int{block[i]} << ", expected " << int{value};
    }
  }
  return testing::AssertionSuccess();
}

// Little-endian u16 values from `offset` equal the low 16 bits of `values`.
inline testing::AssertionResult HalfWordsAre(const Block& block, size_t offset,
                                             const std::vector<int32_t>& values) {
  for (size_t i = 0; i < values.size(); ++i) {
    const int32_t want = static_cast<uint16_t>(values[i]);
    if (block.U16(offset + 2 * i) != want) {
      return testing::AssertionFailure()
             << "half-word " << i << " at byte " << offset + 2 * i << " is "
             << block.U16(offset + 2 * i) << ", expected " << want;
    }
  }
  return testing::AssertionSuccess();
}

inline testing::AssertionResult WordsAre(const Block& block, size_t offset,
                                         const std::vector<int32_t>& values) {
  for (size_t i = 0; i < values.size(); ++i) {
    if (block.I32(offset + 4 * i) != values[i]) {
      return testing::AssertionFailure() << "word " << i << " at byte " << offset + 4 * i << " is "
                                         << block.I32(offset + 4 * i) << ", expected " << values[i];
    }
  }
  return testing::AssertionSuccess();
}

// Values [first, first + count) of `v`, as a new list.
inline std::vector<int32_t> Slice(const std::vector<int32_t>& v, size_t first, size_t count) {
  return std::vector<int32_t>(v.begin() + static_cast<long>(first),
                              v.begin() + static_cast<long>(first + count));
}

}  // namespace postmix_test
