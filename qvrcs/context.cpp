// The conversion context and the meaning of the conversion statuses.
#include "qvrcs/qvrcs.h"

namespace qvrcs {

void QVRCS_InitContext(ConversionContext& context, uint32_t sampleRate) {
  context.sampleRate = sampleRate;
}

const char* QVRCS_StatusText(int32_t status) {
  switch (status) {
    case QVRCS_OK:
      return "success";
    case QVRCS_NOTHING_TO_LOAD:
      return "nothing to load";
    case QVRCS_ERR_NEGATIVE_REF_HTEST:  // same code as QVRCS_ERR_RECORD_TOO_LARGE
      return "record too large for its slot, or negative ref_htest entry";
    case QVRCS_ERR_NO_COEF_TABLE:
      return "no usable coefficient table for the sample rate";
    case QVRCS_ERR_UNKNOWN_ROOM:
      return "no listening model holds the room";
    default:
      return "unknown status";
  }
}

}  // namespace qvrcs
