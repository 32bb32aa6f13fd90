// Little-endian, bounds-checked access to the DSP parameter blocks.
//
// Every byte the converters put into a premix or postmix block goes through
// the store helpers below. A BlockView is a window onto one whole block: the
// section it points at may be overrun (some coefficient copies deliberately
// run on into the following section), but nothing is ever written outside the
// block itself: a store that would cross the block's end is dropped whole.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qvrcs {

struct BlockView {
  uint8_t* block = nullptr;  // first byte of the whole block
  size_t blockSize = 0;      // size of the whole block
  size_t base = 0;           // offset of this view's section inside the block

  // A view of the same block, `offset` bytes further on.
  BlockView At(size_t offset) const { return BlockView{block, blockSize, base + offset}; }
};

// Stores `value` as a signed 32-bit little-endian word at section offset `offset`.
// Returns false (and writes nothing) when the word would not fit in the block.
bool StoreI32(BlockView view, size_t offset, int32_t value);

// Stores the low 16 bits of `value` (plain truncation, no saturation) as a
// little-endian half-word at section offset `offset`. Returns false (and
// writes nothing) when the half-word would not fit in the block.
bool StoreI16(BlockView view, size_t offset, int32_t value);

// Stores `count` values from section offset `offset` on, as by StoreI16 /
// StoreI32 one after the other, with one bounds check for the whole run:
// the values that would cross the block's end are dropped. Returns how many
// were stored.
size_t StoreI16Run(BlockView view, size_t offset, const int32_t* values, size_t count);
size_t StoreI32Run(BlockView view, size_t offset, const int32_t* values, size_t count);

// Writes `count` zero bytes from section offset `offset`, clipped to the block.
void ZeroFill(BlockView view, size_t offset, size_t count);

// Reads back a stored word or half-word (0 when outside the block).
int32_t LoadI32(const uint8_t* block, size_t blockSize, size_t offset);
int16_t LoadI16(const uint8_t* block, size_t blockSize, size_t offset);

}  // namespace qvrcs
