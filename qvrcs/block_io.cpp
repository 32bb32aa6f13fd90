#include "qvrcs/block_io.h"

#include <cstring>

namespace qvrcs {
namespace {

bool Fits(const BlockView& view, size_t offset, size_t width) {
  if (view.block == nullptr) return false;
  const size_t at = view.base + offset;
  if (at < view.base) return false;  // offset wrapped around
  return at <= view.blockSize && width <= view.blockSize - at;
}

// How many `width`-byte items of a run of `count` fit from section offset
// `offset` to the block's end.
size_t ItemsThatFit(const BlockView& view, size_t offset, size_t width, size_t count) {
  if (view.block == nullptr) return 0;
  const size_t at = view.base + offset;
  if (at < view.base || at > view.blockSize) return 0;
  const size_t room = (view.blockSize - at) / width;
  return count < room ? count : room;
}

// The blocks are little-endian; on a little-endian host a value's low bytes
// in memory order are already the block's bytes, so runs are stored with
// plain copies the compiler can vectorise.
constexpr bool kHostIsLittleEndian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;

}  // namespace

bool StoreI32(BlockView view, size_t offset, int32_t value) {
  if (!Fits(view, offset, 4)) return false;
  const uint32_t u = static_cast<uint32_t>(value);
  uint8_t* p = view.block + view.base + offset;
  p[0] = static_cast<uint8_t>(u);
  p[1] = static_cast<uint8_t>(u >> 8);
  p[2] = static_cast<uint8_t>(u >> 16);
  p[3] = static_cast<uint8_t>(u >> 24);
  return true;
}

bool StoreI16(BlockView view, size_t offset, int32_t value) {
  if (!Fits(view, offset, 2)) return false;
  const uint32_t u = static_cast<uint32_t>(value);
  uint8_t* p = view.block + view.base + offset;
  p[0] = static_cast<uint8_t>(u);
  p[1] = static_cast<uint8_t>(u >> 8);
  return true;
}

size_t StoreI16Run(BlockView view, size_t offset, const int32_t* values, size_t count) {
  const size_t fit = ItemsThatFit(view, offset, 2, count);
  if (fit == 0) return 0;
  uint8_t* p = view.block + view.base + offset;
  if constexpr (kHostIsLittleEndian) {
    // Eight at a time: a fixed-length narrowing the compiler turns into a
    // few vector instructions; then the rest one by one.
    constexpr size_t kChunk = 8;
    size_t i = 0;
    for (; fit - i >= kChunk; i += kChunk) {
      uint16_t low[kChunk];
      for (size_t k = 0; k < kChunk; ++k) low[k] = static_cast<uint16_t>(values[i + k]);
      std::memcpy(p + 2 * i, low, sizeof low);
    }
    for (; i < fit; ++i) {
      const uint16_t low = static_cast<uint16_t>(values[i]);
      std::memcpy(p + 2 * i, &low, sizeof low);
    }
    return fit;
  }
  for (size_t i = 0; i < fit; ++i, p += 2) {
    const uint32_t u = static_cast<uint32_t>(values[i]);
    p[0] = static_cast<uint8_t>(u);
    p[1] = static_cast<uint8_t>(u >> 8);
  }
  return fit;
}

size_t StoreI32Run(BlockView view, size_t offset, const int32_t* values, size_t count) {
  const size_t fit = ItemsThatFit(view, offset, 4, count);
  if (fit == 0) return 0;
  uint8_t* p = view.block + view.base + offset;
  if constexpr (kHostIsLittleEndian) {
    std::memcpy(p, values, fit * sizeof(int32_t));
    return fit;
  }
  for (size_t i = 0; i < fit; ++i, p += 4) {
    const uint32_t u = static_cast<uint32_t>(values[i]);
    p[0] = static_cast<uint8_t>(u);
    p[1] = static_cast<uint8_t>(u >> 8);
    p[2] = static_cast<uint8_t>(u >> 16);
    p[3] = static_cast<uint8_t>(u >> 24);
  }
  return fit;
}

void ZeroFill(BlockView view, size_t offset, size_t count) {
  if (view.block == nullptr) return;
  const size_t at = view.base + offset;
  if (at < view.base || at >= view.blockSize) return;
  const size_t room = view.blockSize - at;
  std::memset(view.block + at, 0, count < room ? count : room);
}

int32_t LoadI32(const uint8_t* block, size_t blockSize, size_t offset) {
  if (block == nullptr || offset > blockSize || blockSize - offset < 4) return 0;
  const uint8_t* p = block + offset;
  return static_cast<int32_t>(static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
                              static_cast<uint32_t>(p[2]) << 16 |
                              static_cast<uint32_t>(p[3]) << 24);
}

int16_t LoadI16(const uint8_t* block, size_t blockSize, size_t offset) {
  if (block == nullptr || offset > blockSize || blockSize - offset < 2) return 0;
  const uint8_t* p = block + offset;
  return static_cast<int16_t>(static_cast<uint16_t>(p[0] | p[1] << 8));
}

}  // namespace qvrcs
