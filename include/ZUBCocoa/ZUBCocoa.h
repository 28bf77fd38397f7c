// Umbrella header of the ZUBCocoa analytics library: every public header.
#pragma once

#include <ZUBCocoa/ZUBArchiving.h>
#include <ZUBCocoa/ZUBConstants.h>
#include <ZUBCocoa/ZUBDelivery.h>
#include <ZUBCocoa/ZUBEndpoints.h>
#include <ZUBCocoa/ZUBExport.h>
#include <ZUBCocoa/ZUBPlatform.h>
#include <ZUBCocoa/ZUBPrivacy.h>
#include <ZUBCocoa/ZUBPro.h>
#include <ZUBCocoa/ZUBProBaseFunction.h>
#include <ZUBCocoa/ZUBProEvent.h>
#include <ZUBCocoa/ZUBText.h>
#include <ZUBCocoa/ZUBValue.h>
