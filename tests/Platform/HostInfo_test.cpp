#include "Platform/HostInfo.h"
#include "support/FakeRoot.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <unistd.h>

using zub::HostInfo;
using zubtest::FakeRoot;

namespace {

void clearLocale() {
    for (const char* v : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) unsetenv(v);
}

}  // namespace

TEST(HostInfo, ReadsAMachineFromAMovedRoot) {
    // An empty root gives nothing but the kernel's answers.
    FakeRoot root;
    unsetenv("TZ");
    EXPECT_EQ(HostInfo::osVersion(), std::nullopt);
    EXPECT_EQ(HostInfo::model(), std::nullopt);
    EXPECT_EQ(HostInfo::mainScreen(), std::nullopt);
    EXPECT_EQ(HostInfo::timeZoneName(), "UTC");
    char name[256] = {};
    ASSERT_EQ(gethostname(name, sizeof name - 1), 0);
    EXPECT_EQ(HostInfo::computerName(), std::string(name)) << "no machine-info: the kernel's host name";
    EXPECT_TRUE(HostInfo::machine().has_value());

    // Fallbacks: /usr/lib/os-release, /etc/timezone, an empty model file.
    root.write("/usr/lib/os-release", "VERSION_ID=24.04\n");
    root.write("/etc/timezone", "Europe/Lisbon\n");
    root.write("/sys/class/dmi/id/product_name", "  \n");
    EXPECT_EQ(HostInfo::osVersion(), "24.04");
    EXPECT_EQ(HostInfo::timeZoneName(), "Europe/Lisbon");
    EXPECT_EQ(HostInfo::model(), std::nullopt);
    root.write("/etc/os-release", "NAME=Arch\n");  // no VERSION_ID in the first file
    EXPECT_EQ(HostInfo::osVersion(), "24.04");

    // The files of a laptop, which come first.
    root.write("/etc/os-release", "NAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12.5\"\nID=debian\n");
    root.write("/sys/class/dmi/id/product_name", "ThinkPad X1 Carbon Gen 11\n");
    root.write("/etc/machine-info", "PRETTY_HOSTNAME=\"Ada's \\\"work\\\" laptop\"\n");
    root.symlink("/etc/localtime", "../usr/share/zoneinfo/Asia/Tokyo");
    root.write("/sys/class/drm/card0-HDMI-A-1/status", "disconnected\n");
    root.write("/sys/class/drm/card0-HDMI-A-1/modes", "3840x2160\n");
    root.write("/sys/class/drm/card0-eDP-1/status", "connected\n");
    root.write("/sys/class/drm/card0-eDP-1/modes", "2560x1600\n1920x1200\n");
    root.mkdir("/sys/class/drm/card0");

    EXPECT_EQ(HostInfo::osVersion(), "12.5");
    EXPECT_EQ(HostInfo::model(), "ThinkPad X1 Carbon Gen 11");
    EXPECT_EQ(HostInfo::computerName(), "Ada's \"work\" laptop");
    EXPECT_EQ(HostInfo::timeZoneName(), "Asia/Tokyo");
    auto screen = HostInfo::mainScreen();
    ASSERT_TRUE(screen);
    EXPECT_EQ(screen->width, 2560);
    EXPECT_EQ(screen->height, 1600);
    EXPECT_EQ(screen->depth, 24) << "DRM framebuffers are 24 bits deep unless fbdev says otherwise";

    // A connected connector without a mode is no screen; the next one is.
    root.write("/sys/class/drm/card0-DP-1/status", "connected\n");
    root.write("/sys/class/drm/card0-DP-1/modes", "");
    EXPECT_EQ(HostInfo::mainScreen()->width, 2560);

    EXPECT_TRUE(HostInfo::fileExists("/etc/os-release"));
    EXPECT_TRUE(HostInfo::fileExists("etc/os-release")) << "relative paths are taken from the root too";
    EXPECT_FALSE(HostInfo::fileExists("/etc/passwd"));
    root.symlink("/etc/dangling", "/nowhere/at/all");
    EXPECT_FALSE(HostInfo::fileExists("/etc/dangling"));

    // TZ names the zone when it names one; otherwise the system's link decides.
    const struct {
        const char* tz;
        const char* name;
    } zones[] = {
        {"Europe/Berlin", "Europe/Berlin"},
        {":America/Sao_Paulo", "America/Sao_Paulo"},
        {"/usr/share/zoneinfo/posix/America/New_York", "America/New_York"},
        {"EST5EDT", "EST5EDT"},
        {"/somewhere/else", "Asia/Tokyo"},
        {"", "Asia/Tokyo"},
    };
    for (const auto& z : zones) {
        setenv("TZ", z.tz, 1);
        EXPECT_EQ(HostInfo::timeZoneName(), z.name) << "TZ=" << z.tz;
    }
    unsetenv("TZ");
}

TEST(HostInfo, LanguageFromTheLocaleVariablesAndShellVariables) {
    clearLocale();
    EXPECT_EQ(HostInfo::preferredLanguage(), std::nullopt);
    setenv("LANG", "de_DE.UTF-8", 1);
    EXPECT_EQ(HostInfo::preferredLanguage(), "de-DE");
    setenv("LC_MESSAGES", "pt_BR", 1);
    EXPECT_EQ(HostInfo::preferredLanguage(), "pt-BR");
    setenv("LANGUAGE", ":fr_CA:en", 1);
    EXPECT_EQ(HostInfo::preferredLanguage(), "fr-CA");
    setenv("LC_ALL", "C.UTF-8", 1);
    EXPECT_EQ(HostInfo::preferredLanguage(), std::nullopt) << "the C locale ignores LANGUAGE";
    setenv("LC_ALL", "sr_RS.UTF-8@latin", 1);
    unsetenv("LANGUAGE");
    EXPECT_EQ(HostInfo::preferredLanguage(), "sr-RS");
    clearLocale();

    const std::string text = "A=plain\n  B='single \"q\" $x'\nC=\"dq \\\"x\\\" \\\\ y\"\nAB=wrong\nD=\nE=a\\ b # \r\n";
    EXPECT_EQ(HostInfo::shellVariable(text, "A"), "plain");
    EXPECT_EQ(HostInfo::shellVariable(text, "B"), "single \"q\" $x");
    EXPECT_EQ(HostInfo::shellVariable(text, "C"), "dq \"x\" \\ y");
    EXPECT_EQ(HostInfo::shellVariable(text, "D"), "");
    EXPECT_EQ(HostInfo::shellVariable(text, "E"), "a b #");
    EXPECT_EQ(HostInfo::shellVariable(text, "Z"), std::nullopt);
    EXPECT_EQ(HostInfo::shellVariable("", "A"), std::nullopt);

    EXPECT_EQ(HostInfo::languageTag("en_US.UTF-8"), "en-US");
    EXPECT_EQ(HostInfo::languageTag("zh_Hant_TW@stroke"), "zh-Hant-TW");
    EXPECT_EQ(HostInfo::languageTag("ja"), "ja");
    for (const char* none : {"", "C", "POSIX", "C.UTF-8", ".UTF-8"}) {
        EXPECT_EQ(HostInfo::languageTag(none), std::nullopt) << none;
    }
}
