#include "Platform/Random.h"

#include <gtest/gtest.h>

#include <array>
#include <cctype>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

TEST(Random, UuidsAreVersionFourTextAndValuesAreNotSharedWithAForkedChild) {
    const std::string uuid = zub::Random::uuidString();
    ASSERT_EQ(uuid.size(), 36u);
    for (std::size_t i = 0; i < uuid.size(); ++i) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            EXPECT_EQ(uuid[i], '-') << uuid;
        } else {
            EXPECT_TRUE(std::isxdigit(static_cast<unsigned char>(uuid[i])) && !std::islower(uuid[i])) << uuid;
        }
    }
    EXPECT_EQ(uuid[14], '4') << uuid;
    EXPECT_NE(std::string("89AB").find(uuid[19]), std::string::npos) << uuid;
    EXPECT_NE(zub::Random::uuidString(), uuid);

    // Values come from a block of kernel randomness kept per thread: a child made by
    // fork must not hand out the rest of its parent's block.
    std::set<std::uint32_t> seen;
    for (int i = 0; i < 100; ++i) seen.insert(zub::Random::uint32());  // crosses a block's end
    EXPECT_GT(seen.size(), 95u);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        std::array<std::uint32_t, 4> values{};
        for (auto& v : values) v = zub::Random::uint32();
        _exit(write(fds[1], values.data(), sizeof values) == static_cast<ssize_t>(sizeof values) ? 0 : 1);
    }
    close(fds[1]);
    std::array<std::uint32_t, 4> inChild{};
    EXPECT_EQ(read(fds[0], inChild.data(), sizeof inChild), static_cast<ssize_t>(sizeof inChild));
    close(fds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    std::array<std::uint32_t, 4> inParent{};
    for (auto& v : inParent) v = zub::Random::uint32();
    EXPECT_NE(inChild, inParent);
}
