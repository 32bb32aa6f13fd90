#include "tools/qvrcs/section_json.h"

#include <cstdio>

#include "qvrcs/block_io.h"
#include "qvrcs/record_layout.h"
#include "qvrcs/sections.h"

namespace qvrcs_tool {
namespace {

int32_t Word(const std::vector<uint8_t>& p, size_t at) { return qvrcs::LoadI32(p.data(), p.size(), at); }

Json Values(const std::vector<uint8_t>& p, size_t at, unsigned width, size_t count) {
  Json values = Json::array();
  for (size_t i = 0; i < count; ++i) {
    const size_t where = at + i * width / 8;
    values.push_back(width == 16 ? qvrcs::LoadI16(p.data(), p.size(), where) : Word(p, where));
  }
  return values;
}

std::string Uuid(const std::vector<uint8_t>& p, size_t at) {
  std::string text;
  char byte[4];
  for (size_t i = 0; i < 16; ++i) {
    std::snprintf(byte, sizeof byte, "%02x", p[at + i]);
    text += byte;
  }
  return text;
}

}  // namespace

Json SectionData(const std::vector<uint8_t>& p, const Row& row) {
  if (row.isField || row.block != "postmix") return nullptr;
  const qvrcs::SectionInfo* found = nullptr;
  for (const qvrcs::SectionInfo& section : qvrcs::kPostmixSections) {
    if (row.name == section.name) found = &section;
  }
  if (found == nullptr || row.payloadOffset + found->size > p.size()) return nullptr;
  const qvrcs::SectionInfo& s = *found;
  const size_t at = row.payloadOffset;
  using K = qvrcs::SectionKind;
  switch (s.kind) {
    case K::kFixedWords:
    case K::kWord:
    case K::kCoefficients:
      return Json{{"values", Values(p, at, s.width, s.size * 8 / s.width)}};
    case K::kRoom:
      return Json{{"uuid", Uuid(p, at + qvrcs::kRoomUuid)},
                  {"channelMask", Word(p, at + qvrcs::kRoomChannelMask)},
                  {"numPairs", Word(p, at + qvrcs::kRoomNumPairs)},
                  {"brirLength", Word(p, at + qvrcs::kRoomBrirLength)},
                  {"sampleRate", Word(p, at + qvrcs::kRoomSampleRate)},
                  {"reverbGain", Word(p, at + qvrcs::kRoomReverbGain)},
                  {"reverbCut", Word(p, at + qvrcs::kRoomReverbCut)},
                  {"coefficients", Values(p, at + qvrcs::kRoomCoefs, 16, qvrcs::RoomValuesHeld(s.size))}};
    case K::kHeadphoneEq:
      return Json{{"uuid", Uuid(p, at + qvrcs::kHpeqUuid)},
                  {"sampleRate", Word(p, at + qvrcs::kHpeqSampleRate)},
                  {"length", Word(p, at + qvrcs::kHpeqLength)},
                  {"values", Values(p, at + qvrcs::kHpeqCoefs, 16, (s.size - qvrcs::kHpeqCoefs) / 2)}};
    case K::kAeq: {
      Json channels = Json::array();
      for (size_t ch = 0; ch < qvrcs::kAeqChannels; ++ch) {
        const size_t base = at + (ch ? qvrcs::kAeqChannel1 : qvrcs::kAeqChannel0);
        channels.push_back({{"order", Word(p, base + qvrcs::kAeqOrderWord)},
                            {"marker", Word(p, base + qvrcs::kAeqMarkerWord)},
                            {"coefficients", Values(p, base + qvrcs::kAeqCoefs, 32, qvrcs::kAeqChannelCoefs)}});
      }
      return Json{{"channels", channels}};
    }
  }
  return nullptr;
}

}  // namespace qvrcs_tool
