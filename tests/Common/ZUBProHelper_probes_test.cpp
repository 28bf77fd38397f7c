#include "Common/ZUBProHelper.h"
#include "support/FakeRoot.h"

#include <gtest/gtest.h>

using zubtest::FakeRoot;

TEST(ZUBProHelperProbes, JailbreakPathsBelowTheRoot) {
    FakeRoot root;
    EXPECT_FALSE(ZUBProHelper::isFondJBPath());
    EXPECT_FALSE(ZUBProHelper::isCanAccessUserAppPath());
    EXPECT_FALSE(ZUBProHelper::isJailbroken()) << "none of the five paths exists";

    const struct {
        const char* path;
        bool file;
        bool jbPath;
    } marks[] = {
        {"/Applications/Cydia.app", false, true},
        {"/Library/MobileSubstrate/MobileSubstrate.dylib", true, true},
        {"/etc/apt", false, true},
        {"/User/Applications", false, false},
        {"/User/Containers/Bundle/Application", false, false},
    };
    for (const auto& m : marks) {
        FakeRoot one("one-mark");
        if (m.file) one.write(m.path, "x");
        else one.mkdir(m.path);
        EXPECT_TRUE(ZUBProHelper::isJailbroken()) << m.path;
        EXPECT_EQ(ZUBProHelper::isFondJBPath(), m.jbPath) << m.path;
        EXPECT_EQ(ZUBProHelper::isCanAccessUserAppPath(), !m.jbPath) << m.path;
    }
    // Near misses count for nothing.
    FakeRoot near("near");
    near.mkdir("/Applications/Cydia");
    near.mkdir("/User/Containers/Bundle");
    near.symlink("/etc/apt", "/no/such/target");
    EXPECT_FALSE(ZUBProHelper::isJailbroken());
}
