#include "fuzz/block_checks.h"

#include <cstring>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "qvrcs/block_map.h"
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
  CheckFields(map, premix, kPremixTemplate.data());
}

void CheckPostmixBlock(const uint8_t* postmix) {
  static const std::vector<qvrcs::FieldInfo> map = qvrcs::PostmixControlFieldMap();
  CheckFields(map, postmix, kPostmixTemplate.data());
  // The words between the control section and the first room slot are the
  // template's alone.
  FUZZ_CHECK(std::memcmp(postmix + qvrcs::kPostmixFixedWords,
                         kPostmixTemplate.data() + qvrcs::kPostmixFixedWords,
                         qvrcs::kMultichRoomSlot - qvrcs::kPostmixFixedWords) == 0);
}

}  // namespace fuzz
