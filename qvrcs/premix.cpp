// The premix block (156 bytes) and the Enhance2 section that the premix and
// postmix blocks share.
#include "qvrcs/field_tables.h"
#include "qvrcs/qvrcs.h"
#include "qvrcs/templates.h"

using com::qvr::pb::korva_v1_1::KorvaSettings;
using com::qvr::pb::korva_v1_1::Premix;
using com::qvr::pb::tech::Enhance2;
using qvrcs::BlockView;

int32_t QVRCS_ConvertEnhance2(const ConversionContext& /*context*/, const Enhance2& enhance2,
                              BlockView section, qvrcs::TraceObserver* trace) {
  qvrcs::CopyFields(enhance2, qvrcs::kEnhance2Words, section, trace);
  qvrcs::CopyRepeated(enhance2, qvrcs::kEnhance2Htest, section, trace);
  // The first negative reference value ends the section: it stays written,
  // the elements after it are not.
  const bool allNonNegative = qvrcs::CopyRepeated(enhance2, qvrcs::kEnhance2RefHtest, section, trace,
                                                  [](int32_t value) { return value >= 0; });
  return allNonNegative ? QVRCS_OK : QVRCS_ERR_NEGATIVE_REF_HTEST;
}

void QVRCS_ConvertDravo(const ConversionContext& /*context*/, const KorvaSettings& settings,
                        BlockView block, qvrcs::TraceObserver* trace) {
  const Premix& premix = settings.premix();
  if (!premix.has_dravo()) return;
  const BlockView section = block.At(qvrcs::kPremixDravoSection);
  qvrcs::CopyFields(premix.dravo(), qvrcs::kDravoWords, section, trace);
  qvrcs::CopyFields(premix.dravo(), qvrcs::kDravoHalfWords, section, trace);
}

int32_t QVRCS_ConvertPremix(const ConversionContext& context, const KorvaSettings& settings,
                            qvrcs::PremixBlock& block, bool useTemplate, qvrcs::TraceObserver* trace) {
  if (useTemplate) block = kPremixTemplate;
  if (!settings.has_premix()) return QVRCS_OK;

  const Premix& premix = settings.premix();
  const BlockView view{block.data(), block.size(), 0};
  qvrcs::CopyFields(premix, qvrcs::kPremixWords, view, trace);
  qvrcs::CopyRepeated(premix, qvrcs::kPremixBypassMode, view, trace);
  // A negative ref_htest entry stops filling the Enhance2 section but does
  // not fail the premix block: slots with such files load and must go on
  // loading. Dravo is still written.
  static_cast<void>(QVRCS_ConvertEnhance2(context, premix.enhance2(),
                                          view.At(qvrcs::kPremixEnhance2Section), trace));
  QVRCS_ConvertDravo(context, settings, view, trace);
  return QVRCS_OK;
}
