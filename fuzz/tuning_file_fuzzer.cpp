// Any bytes as a tuning file, through the device's own path: the tuning file
// reader opens the file by name, parses it and runs both converters.
//
// Checked beyond memory safety: the reader answers 0 or -4; it writes only
// the premix and postmix ranges of the payload, and nothing at all when it
// fails; a block it writes keeps the bytes no conversion may touch.
#include <vector>

#include "configurator/payload.h"
#include "configurator/tuning_reader.h"
#include "fuzz/block_checks.h"
#include "fuzz/fuzz_support.h"

namespace {

// Recognisable filler for the payload, different at every position.
uint8_t Filler(size_t i) { return static_cast<uint8_t>(i * 7 + 3); }

bool RangeIsFiller(const std::vector<uint8_t>& payload, size_t from, size_t to) {
  for (size_t i = from; i < to; ++i) {
    if (payload[i] != Filler(i)) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzz::MemoryFile file;
  FUZZ_CHECK(file.Store(data, size));

  std::vector<uint8_t> payload(qvr::kCacheBlockSize);
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = Filler(i);

  const int32_t result = QVRCS_GetPremixData(file.path().c_str(), payload.data());
  FUZZ_CHECK(result == 0 || result == qvr::kReaderFailed);

  // The fade areas are never the reader's.
  FUZZ_CHECK(RangeIsFiller(payload, qvr::kPremixFadeOffset, qvr::kPostmixPayloadOffset));
  FUZZ_CHECK(RangeIsFiller(payload, qvr::kPostmixFadeOffset, qvr::kCacheBlockSize));

  const uint8_t* premix = payload.data() + qvr::kPremixPayloadOffset;
  const uint8_t* postmix = payload.data() + qvr::kPostmixPayloadOffset;
  const bool written = !RangeIsFiller(payload, qvr::kPremixPayloadOffset, qvr::kPremixFadeOffset);
  if (result != 0) FUZZ_CHECK(!written);
  if (written) {
    // Both blocks or neither; bytes that only the templates fill are intact.
    FUZZ_CHECK(!RangeIsFiller(payload, qvr::kPostmixPayloadOffset, qvr::kPostmixFadeOffset));
    fuzz::CheckPremixBlock(premix);
    fuzz::CheckPostmixBlock(postmix);
  } else {
    FUZZ_CHECK(RangeIsFiller(payload, qvr::kPostmixPayloadOffset, qvr::kPostmixFadeOffset));
  }
  return 0;
}
