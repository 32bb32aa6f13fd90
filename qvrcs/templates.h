// The default blocks every conversion starts from.
//
// Both are built at compile time from the default values of the field rows
// (qvrcs/field_tables.h) and the few words of the postmix block that no
// settings field feeds (qvrcs/templates.cpp): they are constant data, and
// nothing runs for them before or after main. A field or reserved half-word
// without a default value does not compile.
#pragma once

#include "qvrcs/layout.h"

namespace qvrcs {

extern const PremixBlock kPremixTemplate;
extern const PostmixBlock kPostmixTemplate;

}  // namespace qvrcs
