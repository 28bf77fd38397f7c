// The OpenUDID opt-out a host passes on from its user: what the device store,
// the registration request and the device ids say afterwards. A later process
// reads the stored entry (the device store's own tests).
#include <ZUBCocoa/ZUBPrivacy.h>
#include <ZUBCocoa/ZUBPro.h>

#include "Common/DeviceID/ZUBProMid.h"
#include "Common/DeviceID/ZUBProOpenUDID.h"
#include "Common/ZUBProStore.h"
#include "Model/ZUBProEnv.h"

#include <gtest/gtest.h>

namespace {

const std::string kOptedOut(40, '0');

std::string registrationUI() {
    const zub::Data body = ZUBProMid::getInstance().getRequestData();
    return zub::Value::parse(body.begin(), body.end()).at("ui").get<std::string>();
}

std::string storedOid() {
    auto entry = ZUBProStore::getInstance().loadFromKeyChain("zuboid");
    return entry && entry->contains("oid") ? entry->at("oid").get<std::string>() : "";
}

}  // namespace

TEST(ZUBProPrivacy, OptOutReplacesTheIdentifierEverywhereAndOptInRestoresIt) {
    // The identifier is fetched (and stored) before the user opts out, as in an
    // application that ran before.
    const std::string shared = ZUBPro::getDeviceIDs().at("oid").get<std::string>();
    ASSERT_EQ(shared.size(), 40u);
    ASSERT_NE(shared, kOptedOut);
    ASSERT_EQ(storedOid(), shared);

    zub::setOpenUDIDOptOut(true);
    EXPECT_EQ(ZUBProOpenUDID::value(), kOptedOut);
    EXPECT_EQ(ZUBPro::getDeviceIDs().at("oid"), kOptedOut);
    EXPECT_EQ(registrationUI(), kOptedOut);
    EXPECT_EQ(ZUBProEnv::getInstance().deviceid(), kOptedOut);
    EXPECT_EQ(storedOid(), kOptedOut);

    zub::setOpenUDIDOptOut(false);
    EXPECT_EQ(ZUBProOpenUDID::value(), shared);
    EXPECT_EQ(ZUBPro::getDeviceIDs().at("oid"), shared);
    EXPECT_EQ(registrationUI(), shared);
    EXPECT_EQ(storedOid(), shared);
}
