// Umbrella header of the ZUBCocoa analytics library.
#pragma once

#include <ZUBCocoa/ZUBExport.h>
#include <ZUBCocoa/ZUBPlatform.h>
#include <ZUBCocoa/ZUBValue.h>
