#include "Platform/Bundle.h"
#include "Platform/Paths.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <set>

using zub::Paths;

TEST(Paths, EachApplicationHasItsOwnDocumentsDirectoryInsideTheDataHome) {
    const std::filesystem::path apps = Paths::dataHome() + "/ZUBCocoa/apps";
    zub::Bundle::setInfoValue("CFBundleIdentifier", "com.example.alpha");
    EXPECT_EQ(Paths::documents(), (apps / "com.example.alpha").string());

    // Whatever the identifier, the directory is one entry of its own below apps:
    // it can neither leave it, nor hide, nor coincide with another's.
    std::set<std::string> seen;
    for (const std::string id : {"com.example.alpha", "com.example.beta", "../escape", "a/b", "a%2Fb", "", ".",
                                 "..", ".hidden", "sp ace\n", "\xc3\xa9t\xc3\xa9"}) {
        SCOPED_TRACE(id);
        zub::Bundle::setInfoValue("CFBundleIdentifier", id);
        const std::filesystem::path documents = Paths::documents();
        EXPECT_EQ(documents.parent_path(), apps);
        const std::string entry = documents.filename().string();
        EXPECT_NE(entry[0], '.');
        EXPECT_EQ(Paths::decodeComponent(entry), id);
        EXPECT_TRUE(seen.insert(entry).second) << "shared with another identifier";
    }
    EXPECT_FALSE(Paths::decodeComponent("%4"));
    EXPECT_FALSE(Paths::decodeComponent("%zz"));

    // Relative XDG values are ignored, as the conventions say.
    const std::string dataHome = Paths::dataHome();
    setenv("XDG_DATA_HOME", "relative/share", 1);
    EXPECT_EQ(Paths::dataHome(), Paths::home() + "/.local/share");
    setenv("XDG_DATA_HOME", dataHome.c_str(), 1);
}
