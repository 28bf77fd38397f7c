#include "Platform/AtomicFile.h"
#include "support/TempHome.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

using zub::AtomicFile;

using zubtest::modeOf;

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
    EXPECT_EQ(AtomicFile::read(path, &error), zub::Data(100000, 7));
    EXPECT_EQ(error, 0);

    // A rename that cannot happen (a directory is in the way): false, the errno,
    // and no temporary file left behind (the path every failed rename takes).
    std::filesystem::create_directories(dir / "busy" / "child");
    EXPECT_FALSE(AtomicFile::write((dir / "busy").string(), zub::Data{1}, 0600, &error));
    EXPECT_NE(error, 0);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir), {}), 2) << "f and busy only";
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

namespace {

// The content of write number `seq`: the number, then a filler whose length and
// bytes depend on it, so that a torn or mixed file is never taken for a record.
zub::Data recordFor(std::uint32_t seq) {
    zub::Data data(4 + 1000 + (seq * 7919u) % 300000u, static_cast<std::uint8_t>(seq * 31u));
    for (int i = 0; i < 4; ++i) data[i] = static_cast<std::uint8_t>(seq >> (8 * i));
    return data;
}

std::optional<std::uint32_t> seqOf(const zub::Data& data) {
    if (data.size() < 4) return std::nullopt;
    std::uint32_t seq = 0;
    for (int i = 0; i < 4; ++i) seq |= static_cast<std::uint32_t>(data[i]) << (8 * i);
    if (data != recordFor(seq)) return std::nullopt;
    return seq;
}

// The real file layer that, in the second write, says "stopped" on `fd` and waits
// for the parent's SIGKILL: with the temporary file written, just before or just
// after the rename.
class StoppingFileSystem : public zub::FileSystemWrapper {
public:
    StoppingFileSystem(int fd, bool afterRename)
        : FileSystemWrapper(zub::FileSystem::posix()), fd_(fd), afterRename_(afterRename) {}
    bool renameFile(const std::string& from, const std::string& to, int& error) override {
        const bool stopHere = ++renames_ == 2;
        if (stopHere && !afterRename_) stop();
        const bool ok = FileSystemWrapper::renameFile(from, to, error);
        if (stopHere && ok) stop();
        return ok;
    }

private:
    void stop() {
        if (::write(fd_, "stopped\n", 8) != 8) ::_exit(3);
        for (;;) ::pause();
    }
    const int fd_;
    const bool afterRename_;
    int renames_ = 0;
};

// True once `fd` gives the line "stopped"; false on end of file or after a minute.
bool waitForStop(int fd) {
    std::string seen;
    while (seen.find("stopped\n") == std::string::npos) {
        pollfd p{fd, POLLIN, 0};
        char chunk[64];
        if (::poll(&p, 1, 60000) <= 0) return false;
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n <= 0) return false;
        seen.append(chunk, static_cast<std::size_t>(n));
    }
    return true;
}

}  // namespace

TEST(AtomicFile, SigkillAtAnyPointOfAWriteLeavesTheOldOrTheNewContent) {
    const auto dir = zubtest::TempHome::makeDir("killed");
    const std::string path = (dir / "record").string();
    ASSERT_TRUE(AtomicFile::write(path, recordFor(0)));
    std::uint32_t onDisk = 0;
    int killedBeforeRename = 0;
    for (const bool afterRename : {false, true, false, true}) {
        SCOPED_TRACE(afterRename ? "killed after the rename" : "killed before the rename");
        int fds[2];
        ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            // Writes records onDisk+1, onDisk+2, ...; the second one is stopped.
            ::close(fds[0]);
            StoppingFileSystem fileSystem(fds[1], afterRename);
            AtomicFile::install(&fileSystem);
            for (std::uint32_t seq = onDisk + 1; seq < onDisk + 4; ++seq) {
                if (!AtomicFile::write(path, recordFor(seq))) ::_exit(4);
            }
            ::_exit(5);  // never stopped: the write did not go through a rename
        }
        ::close(fds[1]);
        const bool stopped = waitForStop(fds[0]);
        ::close(fds[0]);
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(stopped) << "the writer never reached its second rename, status " << status;
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);

        auto content = AtomicFile::read(path);
        ASSERT_TRUE(content);
        const auto seq = seqOf(*content);
        ASSERT_TRUE(seq) << "a torn or mixed file of " << content->size() << " bytes";
        EXPECT_EQ(*seq, onDisk + (afterRename ? 2 : 1)) << "the old content before the rename, the new after";
        onDisk = *seq;
        if (!afterRename) ++killedBeforeRename;
    }
    // A kill between writing and renaming leaves its hidden temporary file, never read as the target.
    int temporaries = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        if (entry.path().filename().string().rfind(".record.tmp-", 0) == 0) ++temporaries;
    }
    EXPECT_EQ(temporaries, killedBeforeRename);
}
