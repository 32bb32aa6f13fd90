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
#include "qvrcs/templates.h"

using com::qvr::pb::coef::CoefTable;
using com::qvr::pb::korva_v1_1::KorvaSettings;
using com::qvr::pb::korva_v1_1::Postmix;
using com::qvr::pb::wbn::ResourceLocator;
using qvrcs::BlockView;

namespace {

using LocatorList = google::protobuf::RepeatedPtrField<ResourceLocator>;

// Every locator loads into the same slot, so the last success remains; the
// first failure stops the walk. 1 (empty uuid) goes on.
int32_t LoadRooms(const LocatorList& locators, const ListeningModelList& models, BlockView block,
                  size_t slot, size_t capacity, uint32_t sampleRate) {
  int32_t status = QVRCS_OK;
  for (const ResourceLocator& locator : locators) {
    status = QVRCS_LoadRoom(locator.uuid(), models, block.At(slot), capacity, sampleRate);
    if (status < 0) break;
  }
  return status;
}

// Every locator is tried and only the last one's status counts: an earlier
// failure is deliberately forgiven.
int32_t LoadHeadphoneEqs(const LocatorList& locators, const ListeningModelList& models,
                         BlockView block, uint32_t sampleRate) {
  int32_t status = QVRCS_OK;
  for (const ResourceLocator& locator : locators) {
    status = QVRCS_LoadHeadphoneEq(locator.uuid(), models, block.At(qvrcs::kHeadphoneEqSlot),
                                   qvrcs::kHeadphoneEqCapacity, sampleRate);
  }
  return status;
}

// Postmix high-pass filter. Nothing here is an error: no table for the rate,
// or a table longer than the area, leaves the coefficients as they were.
// Value-only selection, and the first table for the rate is final.
void ConvertHpfCoef(const ConversionContext& context, const Postmix& postmix, BlockView block) {
  if (!postmix.has_hpf_coef()) return;
  const auto& hpf = postmix.hpf_coef();
  if (hpf.has_order()) qvrcs::StoreI32(block, qvrcs::kHpfOrder, hpf.order());
  for (const CoefTable& table : hpf.coeffs()) {
    if (!qvrcs::TableRateIs(table, context.sampleRate)) continue;
    if (static_cast<size_t>(table.coeff_32_size()) <= qvrcs::kHpfMaxCoefs) {
      qvrcs::PackCoeff32(block, qvrcs::kHpfCoefs, table.coeff_32());
    }
    return;
  }
}

}  // namespace

int32_t QVRCS_ConvertPostmix(const ConversionContext& context, const KorvaSettings& settings,
                             qvrcs::PostmixBlock& block, bool useTemplate,
                             const ListeningModelList& models) {
  if (useTemplate) block = kPostmixTemplate;
  const BlockView whole{block.data(), block.size(), 0};

  int32_t status = QVRCS_ConvertPostmixControls(context, settings, whole);
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

  status = LoadRooms(postmix.multichroom(), *list, whole, qvrcs::kMultichRoomSlot,
                     qvrcs::kMultichRoomCapacity, rate);
  if (status < 0) return status;
  status = LoadRooms(postmix.frontroom(), *list, whole, qvrcs::kFrontRoomSlot,
                     qvrcs::kFrontRoomCapacity, rate);
  if (status < 0) return status;
  status = LoadRooms(postmix.wideroom(), *list, whole, qvrcs::kWideRoomSlot,
                     qvrcs::kWideRoomCapacity, rate);
  if (status < 0) return status;

  status = LoadHeadphoneEqs(postmix.hpeqcoef(), *list, whole, rate);
  if (status < 0) return status;

  ConvertHpfCoef(context, postmix, whole);

  status = QVRCS_ConvertAeqCoef(context, postmix, *list, whole);
  if (status < 0) return status;

  status = QVRCS_ConvertVelmoXoverCoef(context, postmix, whole);
  if (status < 0) return status;
  status = QVRCS_ConvertVelmoHpfCoef(context, postmix, whole);
  if (status < 0) return status;
  return QVRCS_ConvertGormCoef(context, postmix, whole);
}
