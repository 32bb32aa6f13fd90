#include "qvrcs/section_map.h"

#include "qvrcs/layout.h"

namespace qvrcs {

std::vector<SectionInfo> PostmixSectionMap() {
  using K = SectionKind;
  return {
      {"fixed_words", "", kPostmixFixedWords, kMultichRoomSlot - kPostmixFixedWords, 32, K::kFixedWords},
      {"multich_room", "postmix.multichRoom", kMultichRoomSlot, kMultichRoomCapacity, 16, K::kRoom},
      {"front_room", "postmix.frontRoom", kFrontRoomSlot, kFrontRoomCapacity, 16, K::kRoom},
      {"wide_room", "postmix.wideRoom", kWideRoomSlot, kWideRoomCapacity, 16, K::kRoom},
      {"hpeq", "postmix.hpeqCoef", kHeadphoneEqSlot, kHeadphoneEqCapacity, 16, K::kHeadphoneEq},
      {"hpf.order", "postmix.hpf_coef.order", kHpfOrder, kHpfCoefs - kHpfOrder, 32, K::kWord},
      {"hpf.coefs", "postmix.hpf_coef.coeffs", kHpfCoefs, 4 * kHpfMaxCoefs, 32, K::kCoefficients},
      {"aeq", "postmix.aeqCoef", kAeqRecord, kAeqRecordSize, 32, K::kAeq},
      {"velmo_hpf.order", "postmix.velmo_hpf_coef.order", kVelmoHpfOrder,
       kVelmoHpfCoefs - kVelmoHpfOrder, 32, K::kWord},
      {"velmo_hpf.coefs", "postmix.velmo_hpf_coef.hpf_coeffs", kVelmoHpfCoefs,
       2 * kVelmoHpfMaxCoefs, 16, K::kCoefficients},
      {"velmo_xover.order", "postmix.velmo_xover_coef.order", kVelmoXoverOrder,
       kVelmoXoverLpfCoefs - kVelmoXoverOrder, 32, K::kWord},
      {"velmo_xover.lpf_coefs", "postmix.velmo_xover_coef.lpf_coeffs", kVelmoXoverLpfCoefs,
       2 * kVelmoXoverCoefs, 16, K::kCoefficients},
      {"velmo_xover.hpf_coefs", "postmix.velmo_xover_coef.hpf_coeffs", kVelmoXoverHpfCoefs,
       2 * kVelmoXoverCoefs, 16, K::kCoefficients},
      {"gorm.speaker_size", "postmix.gorm_coef.speaker_size", kGormSpeakerSize,
       kGormAnalysisSize - kGormSpeakerSize, 32, K::kWord},
      {"gorm.analysis_size", "postmix.gorm_coef.analysis_size", kGormAnalysisSize,
       kGormCoefs - kGormAnalysisSize, 32, K::kWord},
      {"gorm.coefs", "postmix.gorm_coef.coeffs", kGormCoefs, 4 * kGormMaxCoefs, 32, K::kCoefficients},
  };
}

const SectionInfo* SectionAt(const std::vector<SectionInfo>& map, size_t offset) {
  for (const SectionInfo& section : map) {
    if (offset >= section.offset && offset < section.offset + section.size) return &section;
  }
  return nullptr;
}

}  // namespace qvrcs
