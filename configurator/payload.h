// Layout of one cache block's payload: what the driver receives for one slot.
//
//   offset     size   content
//   0          156    premix block
//   156        20     premix fade area (command 0: none)
//   176        61468  postmix block
//   61644      20     postmix fade area (command 0: none)
#pragma once

#include <cstddef>
#include <cstdint>

#include "qvrcs/layout.h"

namespace qvr {

constexpr size_t kPremixPayloadOffset = 0;
constexpr size_t kPremixFadeOffset = kPremixPayloadOffset + qvrcs::kPremixBlockSize;  // 156
constexpr size_t kFadeAreaSize = 20;
constexpr size_t kPostmixPayloadOffset = kPremixFadeOffset + kFadeAreaSize;          // 176
constexpr size_t kPostmixFadeOffset = kPostmixPayloadOffset + qvrcs::kPostmixBlockSize;  // 61644
constexpr size_t kCacheBlockSize = kPostmixFadeOffset + kFadeAreaSize;               // 61664
constexpr size_t kCacheBlockCount = 6;
constexpr int32_t kDriverCacheSize = static_cast<int32_t>(kCacheBlockCount * kCacheBlockSize);

static_assert(kPostmixPayloadOffset == 176, "postmix block sits at payload offset 176");
static_assert(kPostmixFadeOffset == 61644, "postmix fade area sits at payload offset 61644");
static_assert(kCacheBlockSize == 61664, "one cache block is 61664 bytes");
static_assert(kDriverCacheSize == 369984, "the driver cache holds six blocks");

}  // namespace qvr
