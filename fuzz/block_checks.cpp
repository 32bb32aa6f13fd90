#include "fuzz/block_checks.h"

#include <cstring>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "qvrcs/block_io.h"
#include "qvrcs/block_map.h"
#include "qvrcs/layout.h"
#include "qvrcs/templates.h"

namespace fuzz {
namespace {

void CheckFields(const std::vector<qvrcs::FieldInfo>& map, const uint8_t* block,
                 const uint8_t* templ) {
  static const uint8_t kZeros[4] = {};
  for (const qvrcs::FieldInfo& field : map) {
    const size_t bytes = field.width / 8;
    if (field.kind == qvrcs::FieldKind::kReserved) {
      FUZZ_CHECK(std::memcmp(block + field.offset, templ + field.offset, bytes) == 0);
    } else if (field.kind == qvrcs::FieldKind::kAlwaysZero) {
      FUZZ_CHECK(std::memcmp(block + field.offset, kZeros, bytes) == 0);
    }
  }
}

}  // namespace

void CheckPremixBlock(const uint8_t* premix) {
  static const std::vector<qvrcs::FieldInfo> map = qvrcs::PremixFieldMap();
  CheckFields(map, premix, qvrcs::kPremixTemplate.data());
}

void CheckPostmixBlock(const uint8_t* postmix) {
  static const std::vector<qvrcs::FieldInfo> map = qvrcs::PostmixControlFieldMap();
  CheckFields(map, postmix, qvrcs::kPostmixTemplate.data());
  // The words between the control section and the first room slot are the
  // template's alone.
  FUZZ_CHECK(std::memcmp(postmix + qvrcs::kPostmixFixedWords,
                         qvrcs::kPostmixTemplate.data() + qvrcs::kPostmixFixedWords,
                         qvrcs::kMultichRoomSlot - qvrcs::kPostmixFixedWords) == 0);
}

std::string TraceMismatch(const qvrcs::ConversionTrace& trace, const uint8_t* premix, const uint8_t* postmix) {
  using qvrcs::TraceKind;
#define TRACE_CHECK(condition) \
  if (!(condition)) return "event " + std::to_string(i) + " at offset " + std::to_string(e.offset) + ": " #condition
  const auto& events = trace.events;
  for (size_t i = 0; i < events.size(); ++i) {
    const qvrcs::TraceEvent& e = events[i];
    const bool inPremix = e.block == qvrcs::TraceBlock::kPremix;
    const uint8_t* block = inPremix ? premix : postmix;
    const size_t size = inPremix ? qvrcs::kPremixBlockSize : qvrcs::kPostmixBlockSize;
    if (e.kind == TraceKind::kField || e.kind == TraceKind::kWord) {
      bool rewritten = false;
      for (size_t j = i + 1; j < events.size(); ++j) {
        const auto& later = events[j];
        rewritten = rewritten || (later.kind == TraceKind::kRewritten && later.block == e.block &&
                                  later.offset == e.offset);
      }
      if (rewritten) continue;
      if (e.width == 16) {
        TRACE_CHECK(qvrcs::LoadI16(block, size, e.offset) == static_cast<int16_t>(e.value & 0xFFFF));
      } else {
        TRACE_CHECK(qvrcs::LoadI32(block, size, e.offset) == e.value);
      }
    } else if (e.kind == TraceKind::kRewritten) {
      TRACE_CHECK(qvrcs::LoadI32(block, size, e.offset) == e.stored);
    } else if (e.kind == TraceKind::kRun) {
      TRACE_CHECK(e.written <= e.count);
      // Written over later: by a run into the same area, or by the record
      // of a later locator of the same section (the run's own locator
      // reports right after its record).
      bool overwritten = false;
      bool ownLocator = false;
      for (size_t j = i + 1; j < events.size(); ++j) {
        const auto& later = events[j];
        overwritten = overwritten || (later.kind == TraceKind::kRun && later.offset == e.offset) ||
                      (later.kind == TraceKind::kLocator && later.section == e.section && ownLocator);
        ownLocator = ownLocator || (later.kind == TraceKind::kLocator && later.section == e.section);
      }
      if (overwritten) continue;
      const size_t bytes = e.width / 8;
      for (size_t k = 0; k < e.written && e.offset + (k + 1) * bytes <= e.areaEnd; ++k) {
        const size_t at = e.offset + k * bytes;
        if (bytes == 2) {
          TRACE_CHECK(qvrcs::LoadI16(block, size, at) == static_cast<int16_t>(e.values[k] & 0xFFFF));
        } else {
          TRACE_CHECK(qvrcs::LoadI32(block, size, at) == e.values[k]);
        }
      }
    }
  }
  return {};
#undef TRACE_CHECK
}

}  // namespace fuzz
