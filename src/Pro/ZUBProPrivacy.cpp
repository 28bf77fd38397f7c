// The host's switch for the shared device identifier. Besides the OpenUDID
// record itself, the device store and the environment keep the identifier they
// first saw (the store on disk), so both are given the new answer at once.
#include <ZUBCocoa/ZUBPrivacy.h>

#include "Common/DeviceID/ZUBProOpenUDID.h"
#include "Common/ZUBProHelper.h"
#include "Common/ZUBProStore.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "Model/ZUBProEnv.h"
#include "Pro/ZUBProGuard.h"

namespace zub {

void setOpenUDIDOptOut(bool optOut) {
    zubGuarded("setOpenUDIDOptOut", [&] {
        ZUBProOpenUDID::setOptOut(optOut);
        const std::string value = ZUBProOpenUDID::value();
        // The device store answers from its own entry once it has one; replace it.
        zub::Value entry = zub::Value::object();
        entry["oid"] = value;
        ZUBProStore::getInstance().saveToKeyChain("zuboid", entry);
        ZUBDeviceIDDal::getInstance().setOpenUDID(value);
        ZUBProEnv::getInstance().setDeviceid(value);
        ZUBProHelper::LogDebug("OpenUDID %@", std::string(optOut ? "opted out" : "shared"));
    });
}

}  // namespace zub
