// The postmix control section: bytes 0..411 of the postmix block.
#include "qvrcs/field_tables.h"
#include "qvrcs/qvrcs.h"

namespace qvrcs {

using com::qvr::pb::korva_v1_1::KorvaSettings;
using com::qvr::pb::korva_v1_1::Postmix;

int32_t QVRCS_ConvertPostmixControls(const ConversionContext& context,
                                     const KorvaSettings& settings, BlockView block, TraceObserver* trace) {
  // Without a postmix record nothing below is present; only the zero at
  // Geq10b's reserved half-word and the zell_multi_ch rewrite can act.
  const Postmix& postmix = settings.postmix();
  CopyFields(postmix, kPostmixWords, block, trace);
  for (const auto& array : kPostmixChannelArrays) {
    CopyRepeated(postmix, array, block, trace);
  }
  CopyRepeated(postmix, kPostmixBypassMode, block, trace);

  QVRCS_ConvertVelmo(context, settings, block.At(kPostmixVelmoSection), trace);
  QVRCS_ConvertGeq10b(context, settings, block.At(kPostmixGeq10bSection), trace);
  QVRCS_ConvertAeq(context, settings, block.At(kPostmixAeqSection), trace);
  const int32_t status =
      QVRCS_ConvertEnhance2(context, postmix.enhance2(), block.At(kPostmixEnhance2Section), trace);
  // Zell and the rewrite below still run when Enhance2 failed.
  QVRCS_ConvertZell(context, settings, block.At(kPostmixZellSection), trace);

  // A zell_multi_ch of -1 goes to the DSP as 0. This is the only value
  // rewrite of the conversion, deliberate, and for this word alone:
  // zell_stereo_mode, whose default is -1, keeps whatever it holds.
  const size_t multiCh = block.base + kZellMultiChWord;
  if (LoadI32(block.block, block.blockSize, multiCh) == -1) {
    StoreI32(block, kZellMultiChWord, 0);
    if (trace != nullptr) {
      TraceEvent event;
      event.kind = TraceKind::kRewritten;
      event.offset = multiCh;
      event.value = -1;
      event.stored = 0;
      trace->OnEvent(event);
    }
  }
  TraceStatus(trace, SectionId::kNone, status);
  return status;
}

void QVRCS_ConvertVelmo(const ConversionContext& context, const KorvaSettings& settings,
                        BlockView section, TraceObserver* trace) {
  const Postmix& postmix = settings.postmix();
  if (!postmix.has_velmo()) return;
  CopyFields(postmix.velmo(), kVelmoWords, section, trace);
  CopyFields(postmix.velmo(), kVelmoHalfWords, section, trace);
  QVRCS_ConvertMox3d(context, settings, section.At(kVelmoMox3dSubsection), trace);
  QVRCS_ConvertGorm(context, settings, section.At(kVelmoGormSubsection), trace);
  QVRCS_ConvertOmbra(context, settings, section.At(kVelmoOmbraSubsection), trace);
}

void QVRCS_ConvertMox3d(const ConversionContext& /*context*/, const KorvaSettings& settings,
                        BlockView section, TraceObserver* trace) {
  const Postmix& postmix = settings.postmix();
  if (!postmix.has_velmo() || !postmix.velmo().has_mox3d()) return;
  CopyFields(postmix.velmo().mox3d(), kMox3dHalfWords, section, trace);
  CopyFields(postmix.velmo().mox3d(), kMox3dWords, section, trace);
}

void QVRCS_ConvertOmbra(const ConversionContext& /*context*/, const KorvaSettings& settings,
                        BlockView section, TraceObserver* trace) {
  const Postmix& postmix = settings.postmix();
  if (!postmix.has_velmo() || !postmix.velmo().has_ombra()) return;
  CopyFields(postmix.velmo().ombra(), kOmbraHalfWords, section, trace);
  CopyFields(postmix.velmo().ombra(), kOmbraWords, section, trace);
}

void QVRCS_ConvertGorm(const ConversionContext& /*context*/, const KorvaSettings& settings,
                       BlockView section, TraceObserver* trace) {
  const Postmix& postmix = settings.postmix();
  if (!postmix.has_velmo() || !postmix.velmo().has_gorm()) return;
  CopyFields(postmix.velmo().gorm(), kGormHalfWords, section, trace);
  CopyFields(postmix.velmo().gorm(), kGormWords, section, trace);
}

void QVRCS_ConvertGeq10b(const ConversionContext& /*context*/, const KorvaSettings& settings,
                         BlockView section, TraceObserver* trace) {
  const Postmix& postmix = settings.postmix();
  if (postmix.has_geq10b()) {
    CopyFields(postmix.geq10b(), kGeq10bHalfWords, section, trace);
    CopyFields(postmix.geq10b(), kGeq10bWords, section, trace);
  }
  // Cleared on every conversion, present record or not.
  StoreI16(section, kGeq10bAlwaysZero, 0);
}

void QVRCS_ConvertAeq(const ConversionContext& /*context*/, const KorvaSettings& settings,
                      BlockView section, TraceObserver* trace) {
  const Postmix& postmix = settings.postmix();
  if (!postmix.has_aeq()) return;
  CopyFields(postmix.aeq(), kAeqHalfWords, section, trace);
  CopyFields(postmix.aeq(), kAeqWords, section, trace);
}

void QVRCS_ConvertZell(const ConversionContext& /*context*/, const KorvaSettings& settings,
                       BlockView section, TraceObserver* trace) {
  const Postmix& postmix = settings.postmix();
  if (!postmix.has_zell()) return;
  CopyFields(postmix.zell(), kZellWords, section, trace);
}

}  // namespace qvrcs
