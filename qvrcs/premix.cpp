// The premix block (156 bytes) and the Enhance2 section that the premix and
// postmix blocks share.
#include "qvrcs/field_tables.h"
#include "qvrcs/qvrcs.h"
#include "qvrcs/templates.h"

namespace qvrcs {

using com::qvr::pb::korva_v1_1::KorvaSettings;
using com::qvr::pb::korva_v1_1::Premix;
using com::qvr::pb::tech::Enhance2;

int32_t QVRCS_ConvertEnhance2(const ConversionContext& /*context*/, const Enhance2& enhance2,
                              BlockView section, TraceObserver* trace) {
  CopyFields(enhance2, kEnhance2Words, section, trace);
  CopyRepeated(enhance2, kEnhance2Htest, section, trace);
  // The first negative reference value ends the section: it stays written,
  // the elements after it are not.
  const bool allNonNegative = CopyRepeated(enhance2, kEnhance2RefHtest, section, trace,
                                                  [](int32_t value) { return value >= 0; });
  return allNonNegative ? QVRCS_OK : QVRCS_ERR_NEGATIVE_REF_HTEST;
}

void QVRCS_ConvertDravo(const ConversionContext& /*context*/, const KorvaSettings& settings,
                        BlockView block, TraceObserver* trace) {
  const Premix& premix = settings.premix();
  if (!premix.has_dravo()) return;
  const BlockView section = block.At(kPremixDravoSection);
  CopyFields(premix.dravo(), kDravoWords, section, trace);
  CopyFields(premix.dravo(), kDravoHalfWords, section, trace);
}

int32_t QVRCS_ConvertPremix(const ConversionContext& context, const KorvaSettings& settings,
                            PremixBlock& block, bool useTemplate, TraceObserver* trace) {
  if (useTemplate) block = kPremixTemplate;
  if (!settings.has_premix()) return QVRCS_OK;

  const Premix& premix = settings.premix();
  const BlockView view{block.data(), block.size(), 0};
  CopyFields(premix, kPremixWords, view, trace);
  CopyRepeated(premix, kPremixBypassMode, view, trace);
  // A negative ref_htest entry stops filling the Enhance2 section but does
  // not fail the premix block: slots with such files load and must go on
  // loading. Dravo is still written.
  static_cast<void>(QVRCS_ConvertEnhance2(context, premix.enhance2(),
                                          view.At(kPremixEnhance2Section), trace));
  QVRCS_ConvertDravo(context, settings, view, trace);
  return QVRCS_OK;
}

}  // namespace qvrcs
