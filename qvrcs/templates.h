// The default blocks every conversion starts from.
#pragma once

#include "qvrcs/layout.h"

extern const qvrcs::PremixBlock kPremixTemplate;
extern const qvrcs::PostmixBlock kPostmixTemplate;
