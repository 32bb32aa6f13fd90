#include "tools/qvrcs/response.h"

#include <kissfft/kiss_fftr.h>

#include <algorithm>
#include <cmath>
#include <memory>

#include "qvrcs/block_io.h"
#include "qvrcs/record_layout.h"
#include "qvrcs/sections.h"

namespace qvrcs_tool {
namespace {

constexpr double kFullScale = 32768.0;  // Q15
constexpr size_t kMinFftSize = 8192;
// More slices than this and a room is shown as one run of values.
constexpr size_t kMaxChannels = 64;

size_t FftSize(size_t taps) {
  size_t n = kMinFftSize;
  while (n < taps) n *= 2;
  return n;
}

struct FftDeleter {
  void operator()(kiss_fftr_cfg cfg) const { kiss_fftr_free(cfg); }
};

uint32_t Unsigned(const qvrcs::PostmixBlock& block, size_t at) {
  return static_cast<uint32_t>(qvrcs::LoadI32(block.data(), block.size(), at));
}
int32_t Signed(const qvrcs::PostmixBlock& block, size_t at) {
  return qvrcs::LoadI32(block.data(), block.size(), at);
}

// `count` 16-bit values from `at`, as many as the block holds.
std::vector<int16_t> Taps(const qvrcs::PostmixBlock& block, size_t at, size_t count) {
  std::vector<int16_t> taps;
  for (size_t i = 0; i < count && at + 2 * i + 2 <= block.size(); ++i) {
    taps.push_back(qvrcs::LoadI16(block.data(), block.size(), at + 2 * i));
  }
  return taps;
}

std::string Uuid(const qvrcs::PostmixBlock& block, size_t at) {
  static const char kHex[] = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < 16; ++i) {
    text += kHex[block[at + i] >> 4];
    text += kHex[block[at + i] & 15];
  }
  return text;
}

void Room(const qvrcs::PostmixBlock& block, const qvrcs::SectionInfo& slot, FilterResponse& r) {
  const size_t at = slot.offset;
  const uint32_t pairs = Unsigned(block, at + qvrcs::kRoomNumPairs);
  const uint32_t length = Unsigned(block, at + qvrcs::kRoomBrirLength);
  r.header = "uuid " + Uuid(block, at + qvrcs::kRoomUuid) + ", channelMask " +
             std::to_string(Unsigned(block, at + qvrcs::kRoomChannelMask)) + ", numPairs " + std::to_string(pairs) +
             ", brirLength " + std::to_string(length) + ", rate " +
             std::to_string(Signed(block, at + qvrcs::kRoomSampleRate)) + ", reverbGain " +
             std::to_string(Signed(block, at + qvrcs::kRoomReverbGain)) + ", reverbCut " +
             std::to_string(Unsigned(block, at + qvrcs::kRoomReverbCut));

  const uint64_t expected = uint64_t{pairs} * 2 * length;
  const size_t room = qvrcs::RoomValuesHeld(slot.size);
  size_t count = 0;
  if (!r.facts.known) {
    count = static_cast<size_t>(std::min<uint64_t>(expected, room));
  } else if (r.facts.written) {
    count = r.facts.values;
    if (count != expected) {
      r.problems.push_back(std::to_string(count) + " values, but numPairs x 2 x brirLength = " +
                           std::to_string(expected));
    }
  }
  const std::vector<int16_t> all = Taps(block, at + qvrcs::kRoomCoefs, count);
  if (all.empty() || length == 0 || all.size() / length + (all.size() % length != 0) > kMaxChannels) {
    r.channels.push_back(Respond(all.empty() ? "no values" : "values", all, r.rate));
    return;
  }
  for (size_t first = 0, i = 0; first < all.size(); first += length, ++i) {
    const size_t end = std::min(all.size(), first + length);
    const std::string label = "pair " + std::to_string(i / 2) + (i % 2 == 0 ? " L" : " R");
    r.channels.push_back(Respond(label, std::vector<int16_t>(all.begin() + static_cast<long>(first),
                                                             all.begin() + static_cast<long>(end)),
                                 r.rate));
    if (end - first < length) {
      r.problems.push_back(label + " holds " + std::to_string(end - first) + " of " + std::to_string(length) +
                           " values");
    }
  }
}

void HeadphoneEq(const qvrcs::PostmixBlock& block, const qvrcs::SectionInfo& slot, FilterResponse& r) {
  const size_t at = slot.offset;
  const uint32_t length = Unsigned(block, at + qvrcs::kHpeqLength);
  const size_t lead = at + qvrcs::kHpeqCoefs;
  const size_t first = lead + 2 * qvrcs::kHpeqLeadValues;
  r.header = "uuid " + Uuid(block, at + qvrcs::kHpeqUuid) + ", rate " +
             std::to_string(Signed(block, at + qvrcs::kHpeqSampleRate)) + ", length " + std::to_string(length) +
             ", c0 " + std::to_string(qvrcs::LoadI16(block.data(), block.size(), lead)) + ", c1 " +
             std::to_string(qvrcs::LoadI16(block.data(), block.size(), lead + 2));

  size_t values = 0;  // after c0 and c1
  if (!r.facts.known) {
    values = 2 * static_cast<size_t>(std::min(length, qvrcs::kHpeqMaxTaps));
  } else if (r.facts.written && r.facts.end > first) {
    values = (r.facts.end - first) / 2;
    const uint64_t asked = 2 * uint64_t{r.facts.fileLength};
    const size_t table = r.facts.values > qvrcs::kHpeqLeadValues ? r.facts.values - qvrcs::kHpeqLeadValues : 0;
    if (table != asked) {
      r.problems.push_back(std::to_string(table) + " values after c0, c1, but ihpirLength " +
                           std::to_string(r.facts.fileLength) + " asks for " + std::to_string(asked));
    }
    if (r.facts.end > block.size()) {
      r.problems.push_back(std::to_string((r.facts.end - block.size()) / 2) + " values cut at the block's end");
    }
  }
  const std::vector<int16_t> all = Taps(block, first, values);
  const size_t half = all.size() / 2;
  r.channels.push_back(Respond("left", std::vector<int16_t>(all.begin(), all.begin() + static_cast<long>(half)), r.rate));
  r.channels.push_back(Respond("right", std::vector<int16_t>(all.begin() + static_cast<long>(half), all.end()), r.rate));
  if (all.size() % 2 != 0) r.problems.push_back("an odd count of values: the right channel holds one more");
}

}  // namespace

ChannelResponse Respond(const std::string& label, std::vector<int16_t> taps, uint32_t rate) {
  ChannelResponse c;
  c.label = label;
  c.taps = std::move(taps);
  const size_t n = FftSize(c.taps.size());
  std::vector<kiss_fft_scalar> in(n, 0);
  for (size_t i = 0; i < c.taps.size(); ++i) {
    c.timeMs.push_back(1000.0 * static_cast<double>(i) / rate);
    c.amplitude.push_back(c.taps[i] / kFullScale);
    in[i] = static_cast<kiss_fft_scalar>(c.taps[i] / kFullScale);
    if (c.taps[i] != 0) c.allZero = false;
  }

  std::vector<kiss_fft_cpx> out(n / 2 + 1);
  const std::unique_ptr<kiss_fftr_state, FftDeleter> fft(kiss_fftr_alloc(static_cast<int>(n), 0, nullptr, nullptr));
  if (fft != nullptr) kiss_fftr(fft.get(), in.data(), out.data());
  std::vector<double> magnitude(out.size());
  double peak = 0;
  for (size_t k = 0; k < out.size(); ++k) {
    magnitude[k] = std::hypot(static_cast<double>(out[k].r), static_cast<double>(out[k].i));
    peak = std::max(peak, magnitude[k]);
  }
  for (size_t k = 1; k < out.size(); ++k) {
    const double hz = static_cast<double>(k) * rate / static_cast<double>(n);
    if (hz < kLowestHz) continue;
    c.frequencyHz.push_back(hz);
    const double db = peak > 0 && magnitude[k] > 0 ? 20 * std::log10(magnitude[k] / peak) : kFloorDb;
    c.magnitudeDb.push_back(std::max(db, kFloorDb));
  }
  return c;
}

std::vector<std::string> FilterSections() {
  std::vector<std::string> names;
  for (const qvrcs::SectionInfo& s : qvrcs::kPostmixSections) {
    if (s.kind == qvrcs::SectionKind::kRoom || s.kind == qvrcs::SectionKind::kHeadphoneEq) names.push_back(s.name);
  }
  return names;
}

std::vector<FilterResponse> Responses(const qvrcs::PostmixBlock& block, const std::vector<SlotFacts>& facts,
                                      uint32_t rate, const std::vector<std::string>& sections) {
  std::vector<FilterResponse> out;
  size_t index = 0;
  for (const qvrcs::SectionInfo& s : qvrcs::kPostmixSections) {
    const bool room = s.kind == qvrcs::SectionKind::kRoom;
    if (!room && s.kind != qvrcs::SectionKind::kHeadphoneEq) continue;
    const size_t i = index++;
    if (!sections.empty() && std::find(sections.begin(), sections.end(), s.name) == sections.end()) continue;
    FilterResponse r;
    r.section = s.name;
    r.kind = room ? FilterKind::kRoom : FilterKind::kHeadphoneEq;
    r.rate = rate;
    if (i < facts.size()) r.facts = facts[i];
    if (room) {
      Room(block, s, r);
    } else {
      HeadphoneEq(block, s, r);
    }
    for (const ChannelResponse& c : r.channels) r.allZero = r.allZero && c.allZero;
    if (r.allZero) r.problems.insert(r.problems.begin(), "all zeros");
    out.push_back(std::move(r));
  }
  return out;
}

}  // namespace qvrcs_tool
