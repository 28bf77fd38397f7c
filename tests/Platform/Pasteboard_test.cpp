#include "Platform/Paths.h"
#include "Platform/Pasteboard.h"
#include "support/TempHome.h"

#include <gtest/gtest.h>

#include <algorithm>

using zub::Pasteboard;

using zubtest::modeOf;

namespace {

zub::Data bytes(const std::string& s) {
    return zub::Data(s.begin(), s.end());
}

}  // namespace

TEST(Pasteboard, NamedTypedBlobsUnderTheUsersDataDirectory) {
    EXPECT_EQ(Pasteboard::rootDirectory(), zub::Paths::dataHome() + "/ZUBCocoa/pasteboards");
    EXPECT_FALSE(Pasteboard::existingPasteboardWithName("org.OpenUDID.slot.3"));

    auto pb = Pasteboard::pasteboardWithName("org.OpenUDID.slot.3");
    ASSERT_TRUE(pb);
    EXPECT_EQ(pb->directory(), Pasteboard::rootDirectory() + "/org.OpenUDID.slot.3");
    EXPECT_TRUE(Pasteboard::existingPasteboardWithName("org.OpenUDID.slot.3"));
    EXPECT_FALSE(pb->dataForType("org.OpenUDID"));
    EXPECT_TRUE(pb->types().empty());

    ASSERT_TRUE(pb->setData(bytes("one"), "org.OpenUDID"));
    ASSERT_TRUE(pb->setData(bytes("two"), "public.text"));
    EXPECT_EQ(modeOf(pb->directory()), 0700u);
    EXPECT_EQ(modeOf(pb->directory() + "/org.OpenUDID"), 0600u);

    // Another handle (as another application would make) sees the same blobs.
    auto other = Pasteboard::existingPasteboardWithName("org.OpenUDID.slot.3");
    ASSERT_TRUE(other);
    EXPECT_EQ(other->dataForType("org.OpenUDID"), bytes("one"));
    auto types = other->types();
    std::sort(types.begin(), types.end());
    EXPECT_EQ(types, (std::vector<std::string>{"org.OpenUDID", "public.text"}));
    ASSERT_TRUE(other->setData(bytes("replaced"), "org.OpenUDID"));
    EXPECT_EQ(pb->dataForType("org.OpenUDID"), bytes("replaced"));

    EXPECT_TRUE(pb->clearContents());
    EXPECT_FALSE(other->dataForType("org.OpenUDID"));
    EXPECT_TRUE(Pasteboard::existingPasteboardWithName("org.OpenUDID.slot.3")) << "clearing keeps the pasteboard";
    EXPECT_TRUE(pb->releaseGlobally());
    EXPECT_FALSE(Pasteboard::existingPasteboardWithName("org.OpenUDID.slot.3"));
    EXPECT_TRUE(other->setData(bytes("again"), "t")) << "a stale handle recreates its pasteboard";

    // Any name or type maps to one entry inside the root.
    for (const std::string name : {"../escape", "a/b", "", ".", "..", ".hidden", "100%", "sp ace\n"}) {
        SCOPED_TRACE(name);
        auto pb = Pasteboard::pasteboardWithName(name);
        ASSERT_TRUE(pb);
        EXPECT_EQ(std::filesystem::path(pb->directory()).parent_path(), Pasteboard::rootDirectory());
        ASSERT_TRUE(pb->setData(bytes(name), name));
        EXPECT_EQ(pb->dataForType(name), bytes(name));
        EXPECT_EQ(pb->types(), std::vector<std::string>{name});
    }
}
