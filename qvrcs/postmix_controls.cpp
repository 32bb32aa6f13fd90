// The postmix control section: bytes 0..411 of the postmix block.
#include "qvrcs/field_tables.h"
#include "qvrcs/qvrcs.h"

using com::qvr::pb::korva_v1_1::KorvaSettings;
using com::qvr::pb::korva_v1_1::Postmix;
using qvrcs::BlockView;

int32_t QVRCS_ConvertPostmixControls(const ConversionContext& context,
                                     const KorvaSettings& settings, BlockView block, qvrcs::TraceObserver* trace) {
  // Without a postmix record nothing below is present; only the zero at
  // Geq10b's reserved half-word and the zell_multi_ch rewrite can act.
  const Postmix& postmix = settings.postmix();
  qvrcs::CopyFields(postmix, qvrcs::kPostmixWords, block, trace);
  for (const auto& array : qvrcs::kPostmixChannelArrays) {
    qvrcs::CopyRepeated(postmix, array, block, trace);
  }
  qvrcs::CopyRepeated(postmix, qvrcs::kPostmixBypassMode, block, trace);

  QVRCS_ConvertVelmo(context, settings, block.At(qvrcs::kPostmixVelmoSection), trace);
  QVRCS_ConvertGeq10b(context, settings, block.At(qvrcs::kPostmixGeq10bSection), trace);
  QVRCS_ConvertAeq(context, settings, block.At(qvrcs::kPostmixAeqSection), trace);
  const int32_t status =
      QVRCS_ConvertEnhance2(context, postmix.enhance2(), block.At(qvrcs::kPostmixEnhance2Section), trace);
  // Zell and the rewrite below still run when Enhance2 failed.
  QVRCS_ConvertZell(context, settings, block.At(qvrcs::kPostmixZellSection), trace);

  // A zell_multi_ch of -1 goes to the DSP as 0. This is the only value
  // rewrite of the conversion, deliberate, and for this word alone:
  // zell_stereo_mode, whose default is -1, keeps whatever it holds.
  const size_t multiCh = block.base + qvrcs::kZellMultiChWord;
  if (qvrcs::LoadI32(block.block, block.blockSize, multiCh) == -1) {
    qvrcs::StoreI32(block, qvrcs::kZellMultiChWord, 0);
    if (trace != nullptr) {
      qvrcs::TraceEvent event;
      event.kind = qvrcs::TraceKind::kRewritten;
      event.offset = multiCh;
      event.value = -1;
      event.stored = 0;
      trace->OnEvent(event);
    }
  }
  if (trace != nullptr) {
    qvrcs::TraceEvent event;
    event.kind = qvrcs::TraceKind::kStatus;
    event.status = status;
    trace->OnEvent(event);
  }
  return status;
}

void QVRCS_ConvertVelmo(const ConversionContext& context, const KorvaSettings& settings,
                        BlockView section, qvrcs::TraceObserver* trace) {
  const Postmix& postmix = settings.postmix();
  if (!postmix.has_velmo()) return;
  qvrcs::CopyFields(postmix.velmo(), qvrcs::kVelmoWords, section, trace);
  qvrcs::CopyFields(postmix.velmo(), qvrcs::kVelmoHalfWords, section, trace);
  QVRCS_ConvertMox3d(context, settings, section.At(qvrcs::kVelmoMox3dSubsection), trace);
  QVRCS_ConvertGorm(context, settings, section.At(qvrcs::kVelmoGormSubsection), trace);
  QVRCS_ConvertOmbra(context, settings, section.At(qvrcs::kVelmoOmbraSubsection), trace);
}

void QVRCS_ConvertMox3d(const ConversionContext& /*context*/, const KorvaSettings& settings,
                        BlockView section, qvrcs::TraceObserver* trace) {
  const Postmix& postmix = settings.postmix();
  if (!postmix.has_velmo() || !postmix.velmo().has_mox3d()) return;
  qvrcs::CopyFields(postmix.velmo().mox3d(), qvrcs::kMox3dHalfWords, section, trace);
  qvrcs::CopyFields(postmix.velmo().mox3d(), qvrcs::kMox3dWords, section, trace);
}

void QVRCS_ConvertOmbra(const ConversionContext& /*context*/, const KorvaSettings& settings,
                        BlockView section, qvrcs::TraceObserver* trace) {
  const Postmix& postmix = settings.postmix();
  if (!postmix.has_velmo() || !postmix.velmo().has_ombra()) return;
  qvrcs::CopyFields(postmix.velmo().ombra(), qvrcs::kOmbraHalfWords, section, trace);
  qvrcs::CopyFields(postmix.velmo().ombra(), qvrcs::kOmbraWords, section, trace);
}

void QVRCS_ConvertGorm(const ConversionContext& /*context*/, const KorvaSettings& settings,
                       BlockView section, qvrcs::TraceObserver* trace) {
  const Postmix& postmix = settings.postmix();
  if (!postmix.has_velmo() || !postmix.velmo().has_gorm()) return;
  qvrcs::CopyFields(postmix.velmo().gorm(), qvrcs::kGormHalfWords, section, trace);
  qvrcs::CopyFields(postmix.velmo().gorm(), qvrcs::kGormWords, section, trace);
}

void QVRCS_ConvertGeq10b(const ConversionContext& /*context*/, const KorvaSettings& settings,
                         BlockView section, qvrcs::TraceObserver* trace) {
  const Postmix& postmix = settings.postmix();
  if (postmix.has_geq10b()) {
    qvrcs::CopyFields(postmix.geq10b(), qvrcs::kGeq10bHalfWords, section, trace);
    qvrcs::CopyFields(postmix.geq10b(), qvrcs::kGeq10bWords, section, trace);
  }
  // Cleared on every conversion, present record or not.
  qvrcs::StoreI16(section, qvrcs::kGeq10bAlwaysZero, 0);
}

void QVRCS_ConvertAeq(const ConversionContext& /*context*/, const KorvaSettings& settings,
                      BlockView section, qvrcs::TraceObserver* trace) {
  const Postmix& postmix = settings.postmix();
  if (!postmix.has_aeq()) return;
  qvrcs::CopyFields(postmix.aeq(), qvrcs::kAeqHalfWords, section, trace);
  qvrcs::CopyFields(postmix.aeq(), qvrcs::kAeqWords, section, trace);
}

void QVRCS_ConvertZell(const ConversionContext& /*context*/, const KorvaSettings& settings,
                       BlockView section, qvrcs::TraceObserver* trace) {
  const Postmix& postmix = settings.postmix();
  if (!postmix.has_zell()) return;
  qvrcs::CopyFields(postmix.zell(), qvrcs::kZellWords, section, trace);
}
