// The whole 61468-byte postmix block: template, control section, then the
// room, headphone-EQ, high-pass, AEQ and small coefficient sections.
//
// The fill order matters: the first negative status ends the conversion and
// the block is left as far as it got (earlier sections written, later ones
// at their template or prior contents). The Velmo crossover is filled before
// the Velmo high-pass although it lies after it in the block, so that a
// high-pass failure leaves a written crossover and an untouched Gorm section.
#include "qvrcs/coef_pack.h"
#include "qvrcs/qvrcs.h"
#include "qvrcs/sections.h"
#include "qvrcs/templates.h"

namespace qvrcs {

using com::qvr::pb::coef::CoefTable;
using com::qvr::pb::korva_v1_1::KorvaSettings;
using com::qvr::pb::korva_v1_1::Postmix;
using com::qvr::pb::wbn::ResourceLocator;

namespace {

using LocatorList = google::protobuf::RepeatedPtrField<ResourceLocator>;

// Every locator loads into the same slot, so the last success remains; the
// first failure stops the walk. 1 (empty uuid) goes on.
int32_t LoadRooms(const LocatorList& locators, const ListeningModelList& models, BlockView block,
                  SectionId id, uint32_t sampleRate, TraceObserver* trace) {
  const SectionInfo& slot = Section(id);
  int32_t status = QVRCS_OK;
  int chosen = -1;
  for (int i = 0; i < locators.size(); ++i) {
    LocatorStamp stamp(trace, id, i);
    status = QVRCS_LoadRoom(locators.Get(i).uuid(), models, block.At(slot.offset), slot.size, sampleRate,
                            stamp.Get());
    if (status < 0) break;
    if (status == QVRCS_OK) chosen = i;
  }
  TraceStatus(trace, id, status, chosen);
  return status;
}

// Every locator is tried and only the last one's status counts: an earlier
// failure is deliberately forgiven.
int32_t LoadHeadphoneEqs(const LocatorList& locators, const ListeningModelList& models,
                         BlockView block, uint32_t sampleRate, TraceObserver* trace) {
  const SectionInfo& slot = Section(SectionId::kHeadphoneEq);
  int32_t status = QVRCS_OK;
  int chosen = -1;
  for (int i = 0; i < locators.size(); ++i) {
    LocatorStamp stamp(trace, SectionId::kHeadphoneEq, i);
    status = QVRCS_LoadHeadphoneEq(locators.Get(i).uuid(), models, block.At(slot.offset), slot.size,
                                   sampleRate, stamp.Get());
    if (status == QVRCS_OK) chosen = i;
  }
  TraceStatus(trace, SectionId::kHeadphoneEq, status, chosen);
  return status;
}

// Postmix high-pass filter. Nothing here is an error: no table for the rate,
// or a table longer than the area, leaves the coefficients as they were.
// Value-only selection, and the first table for the rate is final.
void ConvertHpfCoef(const ConversionContext& context, const Postmix& postmix, BlockView block,
                    TraceObserver* trace) {
  if (postmix.has_hpf_coef()) {
    const auto& hpf = postmix.hpf_coef();
    if (hpf.has_order()) StoreSectionWord(block, SectionId::kHighPassOrder, hpf.order(), true, trace);
    const SectionInfo& coefs = Section(SectionId::kHighPassCoefs);
    LocatorStamp stamp(trace, SectionId::kHighPassCoefs, -1);
    for (int i = 0; i < hpf.coeffs_size(); ++i) {
      const CoefTable& table = hpf.coeffs(i);
      if (!TableRateIs(table, context.sampleRate)) continue;
      if (static_cast<size_t>(table.coeff_32_size()) <= coefs.capacity()) {
        PackTable(block, coefs.offset, coefs.size, table, i, 32, stamp.Get());
      } else {
        TraceTooLong(stamp.Get(), table, i, 32);
      }
      break;
    }
  }
  TraceStatus(trace, {SectionId::kHighPassOrder, SectionId::kHighPassCoefs}, QVRCS_OK);
}

}  // namespace

int32_t QVRCS_ConvertPostmix(const ConversionContext& context, const KorvaSettings& settings,
                             PostmixBlock& block, bool useTemplate,
                             const ListeningModelList& models, TraceObserver* trace) {
  if (useTemplate) block = kPostmixTemplate;
  const BlockView whole{block.data(), block.size(), 0};

  int32_t status = QVRCS_ConvertPostmixControls(context, settings, whole, trace);
  if (status != QVRCS_OK) return status;

  // The caller's models are searched first, the postmix's own model last.
  // The private list only refers to the models; it owns none of them.
  const Postmix& postmix = settings.postmix();
  ListeningModelList withOwnModel;
  const ListeningModelList* list = &models;
  if (postmix.has_model()) {
    withOwnModel.reserve(models.size() + 1);
    withOwnModel.assign(models.begin(), models.end());
    withOwnModel.emplace_back(postmix.model());
    list = &withOwnModel;
  }
  const uint32_t rate = context.sampleRate;

  for (const auto& [rooms, id] : {std::make_pair(&postmix.multichroom(), SectionId::kMultichRoom),
                                  std::make_pair(&postmix.frontroom(), SectionId::kFrontRoom),
                                  std::make_pair(&postmix.wideroom(), SectionId::kWideRoom)}) {
    status = LoadRooms(*rooms, *list, whole, id, rate, trace);
    if (status < 0) return status;
  }

  status = LoadHeadphoneEqs(postmix.hpeqcoef(), *list, whole, rate, trace);
  if (status < 0) return status;

  ConvertHpfCoef(context, postmix, whole, trace);

  status = QVRCS_ConvertAeqCoef(context, postmix, *list, whole, trace);
  if (status < 0) return status;

  status = QVRCS_ConvertVelmoXoverCoef(context, postmix, whole, trace);
  if (status < 0) return status;
  status = QVRCS_ConvertVelmoHpfCoef(context, postmix, whole, trace);
  if (status < 0) return status;
  return QVRCS_ConvertGormCoef(context, postmix, whole, trace);
}

}  // namespace qvrcs
