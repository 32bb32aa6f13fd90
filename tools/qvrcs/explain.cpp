#include "tools/qvrcs/explain.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>

#include "configurator/payload.h"
#include "qvrcs/block_io.h"
#include "qvrcs/block_map.h"
#include "qvrcs/field_tables.h"
#include "qvrcs/qvrcs.h"
#include "qvrcs/record_layout.h"
#include "qvrcs/sections.h"
#include "qvrcs/templates.h"
#include "tools/qvrcs/analysis.h"

namespace qvrcs_tool {
namespace {

constexpr size_t kFirstValues = 6;  // values shown of a coefficient run

// The template payload: both templates at their offsets, fade areas zero.
std::vector<uint8_t> TemplatePayload() {
  std::vector<uint8_t> payload(qvr::kCacheBlockSize, 0);
  std::memcpy(payload.data() + qvr::kPremixPayloadOffset, qvrcs::kPremixTemplate.data(), qvrcs::kPremixTemplate.size());
  std::memcpy(payload.data() + qvr::kPostmixPayloadOffset, qvrcs::kPostmixTemplate.data(), qvrcs::kPostmixTemplate.size());
  return payload;
}

bool SameBytes(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b, size_t at, size_t size) {
  return std::memcmp(a.data() + at, b.data() + at, size) == 0;
}

int32_t Word(const std::vector<uint8_t>& payload, size_t at) {
  return qvrcs::LoadI32(payload.data(), payload.size(), at);
}
int32_t Value(const std::vector<uint8_t>& payload, size_t at, unsigned width) {
  return width == 16 ? qvrcs::LoadI16(payload.data(), payload.size(), at) : Word(payload, at);
}

std::string Hex(const std::vector<uint8_t>& payload, size_t at, size_t size) {
  std::string text;
  char byte[4];
  for (size_t i = 0; i < size; ++i) {
    std::snprintf(byte, sizeof byte, "%02x", payload[at + i]);
    text += byte;
  }
  return text;
}

// "[v0, v1, ... v5, ...]" from `count` values of `width` bits.
std::string Values(const std::vector<uint8_t>& payload, size_t at, unsigned width, size_t count) {
  std::string text = "[";
  const size_t shown = std::min(count, kFirstValues);
  for (size_t i = 0; i < shown; ++i) {
    text += (i ? ", " : "") + std::to_string(Value(payload, at + i * width / 8, width));
  }
  return text + (count > shown ? ", ...]" : "]");
}

// Last non-zero byte of [at, at + size), relative to the block start; 0 when all zero.
size_t UsedUpTo(const std::vector<uint8_t>& payload, size_t at, size_t size, size_t blockStart) {
  for (size_t i = size; i > 0; --i) {
    if (payload[at + i - 1] != 0) return at + i - blockStart;
  }
  return 0;
}

// Decodes a section of the postmix block (payload bytes from `at`).
std::string Holds(const std::vector<uint8_t>& p, const qvrcs::SectionInfo& s, size_t at) {
  using K = qvrcs::SectionKind;
  switch (s.kind) {
    case K::kFixedWords:
    case K::kWord:
    case K::kCoefficients:
      return Values(p, at, s.width, s.size * 8 / s.width);
    case K::kRoom:
      return "uuid " + Hex(p, at + qvrcs::kRoomUuid, 16) +
             ", channelMask " + std::to_string(Word(p, at + qvrcs::kRoomChannelMask)) +
             ", numPairs " + std::to_string(Word(p, at + qvrcs::kRoomNumPairs)) +
             ", brirLength " + std::to_string(Word(p, at + qvrcs::kRoomBrirLength)) +
             ", rate " + std::to_string(Word(p, at + qvrcs::kRoomSampleRate)) +
             ", reverbGain " + std::to_string(Word(p, at + qvrcs::kRoomReverbGain)) +
             ", reverbCut " + std::to_string(Word(p, at + qvrcs::kRoomReverbCut)) +
             ", coefficients " + Values(p, at + qvrcs::kRoomCoefs, 16, qvrcs::RoomValuesHeld(s.size)) +
             ", non-zero up to byte " + std::to_string(UsedUpTo(p, at, s.size, at - s.offset));
    case K::kHeadphoneEq:
      return "uuid " + Hex(p, at + qvrcs::kHpeqUuid, 16) +
             ", rate " + std::to_string(Word(p, at + qvrcs::kHpeqSampleRate)) +
             ", length " + std::to_string(Word(p, at + qvrcs::kHpeqLength)) +
             ", values " + Values(p, at + qvrcs::kHpeqCoefs, 16, (s.size - qvrcs::kHpeqCoefs) / 2) +
             ", non-zero up to byte " + std::to_string(UsedUpTo(p, at, s.size, at - s.offset));
    case K::kAeq: {
      std::string text;
      for (size_t ch = 0; ch < qvrcs::kAeqChannels; ++ch) {
        const size_t base = at + (ch ? qvrcs::kAeqChannel1 : qvrcs::kAeqChannel0);
        text += (ch ? "; " : "") + std::string("channel ") + std::to_string(ch) + ": order " +
                std::to_string(Word(p, base + qvrcs::kAeqOrderWord)) + ", marker " +
                std::to_string(Word(p, base + qvrcs::kAeqMarkerWord)) + ", coefficients " +
                Values(p, base + qvrcs::kAeqCoefs, 32, qvrcs::kAeqChannelCoefs);
      }
      return text;
    }
  }
  return {};
}

// What the converters stored in one block, by offset, from the trace.
struct Stores {
  std::map<size_t, const qvrcs::TraceEvent*> fields;  // the settings value stored there
  std::map<size_t, std::string> notes;                // how the value came about
};

Stores StoresOf(const Conversion* conversion, qvrcs::TraceBlock block) {
  Stores stores;
  if (conversion == nullptr) return stores;
  for (const qvrcs::TraceEvent& e : conversion->trace.events) {
    if (e.block != block || e.section != qvrcs::SectionId::kNone) continue;
    if (e.kind == qvrcs::TraceKind::kField) {
      stores.fields[e.offset] = &e;
      if (e.wrapped) stores.notes[e.offset] = "the file gives " + std::to_string(e.value) + ", wrapped to 16 bits";
    } else if (e.kind == qvrcs::TraceKind::kRewritten) {
      stores.notes[e.offset] =
          "the file gives " + std::to_string(e.value) + ", stored as " + std::to_string(e.stored);
    } else if (e.kind == qvrcs::TraceKind::kUnwritten) {
      stores.notes[e.offset] = "not written: an earlier ref_htest entry is negative";
    }
  }
  return stores;
}

void AddFields(View& view, const char* block, size_t payloadBase, const std::vector<qvrcs::FieldInfo>& map,
               const Conversion* conversion, const std::vector<uint8_t>& templ) {
  const Stores stores =
      StoresOf(conversion, std::string(block) == "premix" ? qvrcs::TraceBlock::kPremix : qvrcs::TraceBlock::kPostmix);
  for (const qvrcs::FieldInfo& field : map) {
    Row row;
    row.block = block;
    row.name = field.path;
    row.offset = field.offset;
    row.payloadOffset = payloadBase + field.offset;
    row.width = field.width;
    row.size = field.width / 8;
    row.isField = true;
    row.value = Value(view.payload, row.payloadOffset, field.width);
    const bool asTemplate = SameBytes(view.payload, templ, row.payloadOffset, row.size);
    const auto note = stores.notes.find(field.offset);
    if (field.kind == qvrcs::FieldKind::kReserved) {
      row.origin = asTemplate ? "template" : "changed";
      row.note = "reserved";
    } else if (field.kind == qvrcs::FieldKind::kAlwaysZero) {
      row.origin = view.isPayload && row.value != 0 ? "changed" : "conversion";
      row.note = "reserved, always 0";
    } else if (conversion == nullptr) {
      row.origin = asTemplate ? "template" : "changed";
    } else if (stores.fields.count(field.offset) != 0) {
      row.origin = "file";
      if (note != stores.notes.end()) row.note = note->second;
    } else if (note != stores.notes.end()) {
      row.origin = "template";
      row.note = note->second;
    } else {
      row.origin = asTemplate ? "template" : "conversion";
    }
    view.rows.push_back(row);
  }
}

void AddSections(View& view, const Analysis* analysis, const std::vector<uint8_t>& templ) {
  for (const qvrcs::SectionInfo& s : qvrcs::kPostmixSections) {
    Row row;
    row.block = "postmix";
    row.name = s.name;
    row.offset = s.offset;
    row.payloadOffset = qvr::kPostmixPayloadOffset + s.offset;
    row.size = s.size;
    row.width = s.width;
    row.isField = s.kind == qvrcs::SectionKind::kWord;
    row.value = Word(view.payload, row.payloadOffset);
    row.holds = Holds(view.payload, s, row.payloadOffset);
    row.source = s.source;
    const bool asTemplate = SameBytes(view.payload, templ, row.payloadOffset, row.size);
    if (s.kind == qvrcs::SectionKind::kFixedWords || analysis == nullptr) {
      row.origin = asTemplate ? "template" : "changed";
    } else if (const SectionOrigin& origin = analysis->Section(s.id); !origin.reached) {
      row.origin = asTemplate ? "template" : "changed";
      row.note = "not written: the conversion stopped before this section";
    } else if (origin.fromFile) {
      row.origin = "file";
      if (!origin.source.empty()) row.source = origin.source;
      row.note = origin.detail;
    } else {
      row.origin = asTemplate ? "template" : "conversion";
      row.note = origin.detail;
    }
    if (s.kind == qvrcs::SectionKind::kFixedWords) row.note = "no conversion writes these words";
    view.rows.push_back(row);
  }
}

void AddFadeArea(View& view, const char* name, size_t at) {
  Row row;
  row.block = "payload";
  row.name = name;
  row.offset = at;
  row.payloadOffset = at;
  row.size = qvr::kFadeAreaSize;
  row.width = 32;
  row.holds = Values(view.payload, at, 32, qvr::kFadeAreaSize / 4);
  const bool zero = UsedUpTo(view.payload, at, row.size, at) == 0;
  row.origin = zero ? "zero" : "changed";
  row.note = "fade area: the configurator's zero-filled buffer, never written";
  view.rows.push_back(row);
}

}  // namespace

View BuildView(Input& input, std::unique_ptr<Conversion>* handBack) {
  View view;
  view.path = input.path;
  view.isPayload = input.isPayload;
  const std::vector<uint8_t> templ = TemplatePayload();
  std::unique_ptr<Conversion> conversion;
  std::unique_ptr<Analysis> analysis;
  if (input.isPayload) {
    view.payload = input.payload;
  } else {
    conversion = Convert(input);
    view.converted = conversion->selected();
    if (!view.converted) {
      view.failure = conversion->SelectError();
      view.payload = templ;
    } else {
      view.premixStatus = conversion->premixStatus();
      view.postmixStatus = conversion->postmixStatus();
      view.payload = conversion->Payload();
      if (!conversion->ok()) view.failure = DiagnoseFailure(*conversion);
      analysis = std::make_unique<Analysis>(Analyse(*conversion));
    }
  }
  const Conversion* converted = view.converted ? conversion.get() : nullptr;
  AddFields(view, "premix", qvr::kPremixPayloadOffset, qvrcs::PremixFieldMap(), converted, templ);
  AddFadeArea(view, "premix_fade", qvr::kPremixFadeOffset);
  AddFields(view, "postmix", qvr::kPostmixPayloadOffset, qvrcs::PostmixControlFieldMap(), converted, templ);
  AddSections(view, analysis.get(), templ);
  AddFadeArea(view, "postmix_fade", qvr::kPostmixFadeOffset);
  // What check warns of, at the field or section it concerns.
  if (converted != nullptr) view.warnings = FindSuspicious(*converted);
  for (const Warning& w : view.warnings) {
    for (Row& row : view.rows) {
      if (!w.at.empty() && row.name == w.at) {
        row.warnings.push_back(w);
        break;
      }
    }
  }
  if (handBack != nullptr) *handBack = std::move(conversion);
  return view;
}

std::vector<Warning> WarningsOnlyIn(const View& x, const View& y) {
  std::vector<Warning> only;
  if (x.isPayload || y.isPayload) return only;
  for (const Warning& w : x.warnings) {
    const bool shared = std::any_of(y.warnings.begin(), y.warnings.end(), [&](const Warning& other) {
      return other.code == w.code && other.message == w.message;
    });
    if (!shared) only.push_back(w);
  }
  return only;
}

RowDifference CompareRow(const View& a, const View& b, const Row& row) {
  RowDifference d;
  const size_t step = row.width >= 8 ? row.width / 8 : 1;
  d.total = row.size / step;
  for (size_t i = 0; i < d.total; ++i) {
    const size_t at = row.payloadOffset + i * step;
    if (std::memcmp(a.payload.data() + at, b.payload.data() + at, step) != 0) {
      if (d.values == 0) d.firstOffset = row.offset + i * step;
      ++d.values;
    }
  }
  return d;
}

std::vector<std::pair<Row, Row>> DiffViews(const View& a, const View& b) {
  std::vector<std::pair<Row, Row>> out;
  for (size_t i = 0; i < a.rows.size() && i < b.rows.size(); ++i) {
    const Row& row = a.rows[i];
    if (!SameBytes(a.payload, b.payload, row.payloadOffset, row.size)) out.emplace_back(a.rows[i], b.rows[i]);
  }
  return out;
}

}  // namespace qvrcs_tool
