#include "Platform/AtomicFile.h"
#include "support/TempHome.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sys/stat.h>

using zub::AtomicFile;

namespace {

unsigned modeOf(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return 0;
    return st.st_mode & 07777;
}

std::size_t entriesIn(const std::filesystem::path& dir) {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(dir), {}));
}

}  // namespace

TEST(AtomicFile, ReplacesWholeFilesWithExactModesAndReportsErrors) {
    const auto dir = zubtest::TempHome::makeDir("atomic");
    const std::string path = (dir / "f").string();
    int error = 0;
    EXPECT_FALSE(AtomicFile::read(path, &error));
    EXPECT_EQ(error, ENOENT);

    const mode_t old = ::umask(0077);
    ASSERT_TRUE(AtomicFile::write(path, zub::Data{1, 2, 3}, 0644));
    ::umask(old);
    EXPECT_EQ(modeOf(path), 0644u) << "the mode given, not reduced by the umask";
    ASSERT_TRUE(AtomicFile::write(path, zub::Data(100000, 7)));
    EXPECT_EQ(modeOf(path), 0600u);
    EXPECT_EQ(AtomicFile::read(path), zub::Data(100000, 7));
    EXPECT_EQ(AtomicFile::read(path, &error)->size(), 100000u);
    EXPECT_EQ(error, 0);

    // A rename that cannot happen (a directory is in the way): false, the errno,
    // and no temporary file left behind.
    std::filesystem::create_directories(dir / "busy" / "child");
    EXPECT_FALSE(AtomicFile::write((dir / "busy").string(), zub::Data{1}, 0600, &error));
    EXPECT_NE(error, 0);
    EXPECT_EQ(entriesIn(dir), 2u);
    EXPECT_FALSE(AtomicFile::write((dir / "missing" / "f").string(), zub::Data{1}, 0600, &error));
    EXPECT_EQ(error, ENOENT);

    // Directories: created with every missing parent at the exact mode; a file in
    // the way is an error.
    const std::string nested = (dir / "a" / "b" / "c").string();
    ASSERT_TRUE(AtomicFile::createDirectories(nested, 0700));
    EXPECT_EQ(modeOf(nested), 0700u);
    EXPECT_EQ(modeOf((dir / "a").string()), 0700u);
    EXPECT_TRUE(AtomicFile::createDirectories(nested, 0755)) << "an existing directory is fine";
    EXPECT_EQ(modeOf(nested), 0700u) << "and is left as it is";
    EXPECT_FALSE(AtomicFile::createDirectories(path + "/sub", 0700, &error));

    EXPECT_TRUE(AtomicFile::remove(path));
    EXPECT_TRUE(AtomicFile::remove(path)) << "removing a missing file succeeds";
    EXPECT_FALSE(AtomicFile::read(path));
}
