// The environment record: what it gathers from the machine, once, and what a new
// read changes.
#include "Model/ZUBProEnv.h"

#include "Common/ZUBProHelper.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "Platform/Bundle.h"
#include "Platform/HostInfo.h"
#include "Platform/UserDefaults.h"
#include "support/FakeRoot.h"

#include <gtest/gtest.h>

#include <cstdlib>

using zubtest::FakeRoot;

namespace {

void clearLocale() {
    for (const char* v : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG", "TZ"}) unsetenv(v);
}

}  // namespace

TEST(ZUBProEnv, GatheredOnceFromAPresentedMachine) {
    FakeRoot root;
    root.write("/etc/os-release", "PRETTY_NAME=\"Test OS\"\nVERSION_ID=\"12.5\"\n");
    root.write("/sys/class/dmi/id/product_name", "Precision 5570\n");
    root.write("/etc/machine-info", "PRETTY_HOSTNAME=\"Build Host 7\"\n");
    root.symlink("/etc/localtime", "/usr/share/zoneinfo/America/Sao_Paulo");
    root.write("/sys/class/drm/card1-eDP-1/status", "connected\n");
    root.write("/sys/class/drm/card1-eDP-1/modes", "2560x1600\n");
    root.write("/sys/class/graphics/fb0/bits_per_pixel", "32\n");
    clearLocale();
    setenv("LANG", "fr_FR.UTF-8", 1);
    zub::Bundle::setInfoValue("CFBundleShortVersionString", "3.2.1");

    testing::internal::CaptureStdout();
    ZUBProEnv& env = ZUBProEnv::getInstance();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Precision 5570\n") << "the model is also written to standard output";

    EXPECT_EQ(env.platform(), "Build Host 7");
    EXPECT_EQ(env.devicename(), zub::HostInfo::machine().value_or(""));
    EXPECT_EQ(env.modulename(), "Precision 5570");
    EXPECT_EQ(env.os_version(), "12.5");
    EXPECT_EQ(env.timezone(), "America/Sao_Paulo");
    EXPECT_EQ(env.resolution(), "81920x51200") << "width and height are multiplied by the depth";
    EXPECT_EQ(env.deviceid(), ZUBDeviceIDDal::getInstance().getOpenUDID());
    EXPECT_EQ(env.idfv(), ZUBDeviceIDDal::getInstance().getIdfv());
    EXPECT_EQ(env.language(), "fr-FR");
    EXPECT_TRUE(env.idfa() == "" && env.mccmnc() == "");
    EXPECT_EQ(env.app_version(), "3.2.1");
    EXPECT_EQ(env.sdk_version(), "1.0.0");
    const auto wf = ZUBProHelper::jsonToObj(env.wf());
    ASSERT_TRUE(wf && wf->contains("ss") && wf->contains("bs")) << env.wf().value_or("(null)");

    // Never refreshed: later changes are not seen by the shared instance.
    root.write("/etc/os-release", "VERSION_ID=13\n");
    setenv("TZ", "Europe/Oslo", 1);
    EXPECT_EQ(ZUBProEnv::getInstance().os_version(), "12.5");
    EXPECT_EQ(ZUBProEnv::getInstance().timezone(), "America/Sao_Paulo");

    // The user-defaults language list wins over the locale; app_version, once
    // known, is kept by a new read.
    zub::UserDefaults::standard().setObject("AppleLanguages", zub::Value::array({"zh-Hans-CN", "en"}));
    zub::Bundle::setInfoValue("CFBundleShortVersionString", "9.9");
    testing::internal::CaptureStdout();
    env.getEnvInfo();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(env.language(), "zh-Hans-CN");
    EXPECT_EQ(env.app_version(), "3.2.1");
    EXPECT_EQ(env.os_version(), "13");
    EXPECT_EQ(env.timezone(), "Europe/Oslo");
    clearLocale();
}

TEST(ZUBProEnv, AnEmptyMachineGivesNoModelAndAZeroScreen) {
    // What the host reports for an empty root is the host information's test;
    // here what the record makes of the gaps.
    FakeRoot root;
    clearLocale();
    testing::internal::CaptureStdout();
    ZUBProEnv& env = ZUBProEnv::getInstance();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "no model, nothing printed";
    EXPECT_EQ(env.modulename(), std::nullopt);
    EXPECT_EQ(env.resolution(), "0x0");
    EXPECT_EQ(env.app_version(), std::nullopt);
    EXPECT_FALSE(env.jailbroken());
    // A Debian-like machine shows "/etc/apt", one of the jailbreak marks.
    root.mkdir("/etc/apt");
    testing::internal::CaptureStdout();
    env.getEnvInfo();
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(env.jailbroken());
}
