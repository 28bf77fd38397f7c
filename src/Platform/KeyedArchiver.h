// Keyed archiving lives in the public header, since plug-ins archive their own
// event classes; see <ZUBCocoa/ZUBArchiving.h> for the contract.
#pragma once

#include <ZUBCocoa/ZUBArchiving.h>
