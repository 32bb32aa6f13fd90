// The default blocks every conversion starts from.
//
// Both are built once, before main, from the descriptions in
// qvrcs/templates.cpp; read them from running code only, not from other
// static initialisers.
#pragma once

#include "qvrcs/layout.h"

extern const qvrcs::PremixBlock kPremixTemplate;
extern const qvrcs::PostmixBlock kPostmixTemplate;

namespace qvrcs {

// Build a template from its description into a zeroed `block`. False when
// the description names a field the block does not have, or leaves a field
// of the block without a default: a fault of the description itself.
bool BuildPremixTemplate(PremixBlock& block);
bool BuildPostmixTemplate(PostmixBlock& block);

}  // namespace qvrcs
