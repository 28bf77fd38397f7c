#include "Platform/AtomicFile.h"
#include "support/FaultyFileSystem.h"
#include "support/TempHome.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <random>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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

    // Faults injected at the seam reach the caller the same way, and a failed
    // rename leaves neither a changed target nor a temporary file.
    {
        zubtest::FaultyFileSystem faults;
        faults.failRenames(1, EXDEV);
        EXPECT_FALSE(AtomicFile::write(path, zub::Data{9}, 0600, &error));
        EXPECT_EQ(error, EXDEV);
        faults.failReads(1, EIO);
        EXPECT_FALSE(AtomicFile::read(path, &error));
        EXPECT_EQ(error, EIO);
        EXPECT_EQ(faults.injected(), 2);
    }
    EXPECT_EQ(AtomicFile::read(path), zub::Data(100000, 7));
    EXPECT_EQ(entriesIn(dir), 3u) << "f, busy, a and nothing else";

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

// Where the writing child stops, to be killed there, in its second write: with
// the temporary file written, at the rename; just after the rename; or nowhere
// (killed at a moment of the parent's choosing).
enum class StopAt { BeforeRename, AfterRename, Nowhere };

void report(int fd, const std::string& line) {
    const std::string text = line + "\n";
    if (::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) ::_exit(3);
}

// The real file layer, telling the parent how far each write got.
class SteppingFileSystem : public zub::FileSystemWrapper {
public:
    SteppingFileSystem(int fd, StopAt stop) : FileSystemWrapper(zub::FileSystem::posix()), fd_(fd), stop_(stop) {}
    bool renameFile(const std::string& from, const std::string& to, int& error) override {
        ++writes_;
        stopIf(StopAt::BeforeRename);
        const bool ok = FileSystemWrapper::renameFile(from, to, error);
        if (ok) stopIf(StopAt::AfterRename);
        return ok;
    }

private:
    void stopIf(StopAt point) {
        if (point != stop_ || writes_ != 2) return;
        report(fd_, "stopped");
        for (;;) ::pause();  // until the parent's SIGKILL
    }
    const int fd_;
    const StopAt stop_;
    int writes_ = 0;
};

// Keeps replacing `path` with consecutive records from `first` on, reporting
// "done <seq>" after each completed write.
[[noreturn]] void writeRecords(const std::string& path, std::uint32_t first, int fd, StopAt stop) {
    SteppingFileSystem fileSystem(fd, stop);
    AtomicFile::install(&fileSystem);
    for (std::uint32_t seq = first;; ++seq) {
        if (!AtomicFile::write(path, recordFor(seq))) ::_exit(4);
        report(fd, "done " + std::to_string(seq));
    }
}

// Lines from a pipe, each waited for with a generous bound.
class LineReader {
public:
    explicit LineReader(int fd) : fd_(fd) {}
    std::optional<std::string> next() {
        for (;;) {
            if (const auto nl = buffer_.find('\n'); nl != std::string::npos) {
                std::string line = buffer_.substr(0, nl);
                buffer_.erase(0, nl + 1);
                return line;
            }
            pollfd p{fd_, POLLIN, 0};
            if (::poll(&p, 1, 60000) <= 0) return std::nullopt;
            char chunk[512];
            const ssize_t n = ::read(fd_, chunk, sizeof chunk);
            if (n <= 0) return std::nullopt;
            buffer_.append(chunk, static_cast<std::size_t>(n));
        }
    }

private:
    const int fd_;
    std::string buffer_;
};

}  // namespace

TEST(AtomicFile, SigkillAtAnyPointOfAWriteLeavesTheOldOrTheNewContent) {
    const auto dir = zubtest::TempHome::makeDir("killed");
    const std::string path = (dir / "record").string();
    ASSERT_TRUE(AtomicFile::write(path, recordFor(0)));
    std::uint32_t onDisk = 0;
    std::mt19937 rng(42);
    int leftAtTemporary = 0;
    for (int round = 0; round < 30; ++round) {
        const StopAt stop = static_cast<StopAt>(round % 3);
        SCOPED_TRACE("round " + std::to_string(round));
        int fds[2];
        ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(fds[0]);
            writeRecords(path, onDisk + 1, fds[1], stop);
        }
        ::close(fds[1]);
        // Progress first: at least one whole write, then the kill lands in a later one.
        LineReader lines(fds[0]);
        std::uint32_t lastDone = 0;
        int done = 0;
        const int doneBeforeKill = 1 + static_cast<int>(rng() % 3);
        bool stopped = false;
        while (auto line = lines.next()) {
            if (line->rfind("done ", 0) == 0) {
                lastDone = static_cast<std::uint32_t>(std::stoul(line->substr(5)));
                if (++done >= doneBeforeKill && stop == StopAt::Nowhere) break;
            } else if (*line == "stopped") {
                stopped = true;
                break;
            }
        }
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        // The child may have run ahead of the lines read so far: what it reported
        // before it died is all in the pipe now.
        while (auto line = lines.next()) {
            if (line->rfind("done ", 0) == 0) lastDone = static_cast<std::uint32_t>(std::stoul(line->substr(5)));
        }
        ::close(fds[0]);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "the writer failed on its own";
        ASSERT_GE(done, 1) << "no write completed before the kill";
        ASSERT_EQ(stopped, stop != StopAt::Nowhere);

        auto content = AtomicFile::read(path);
        ASSERT_TRUE(content);
        const auto seq = seqOf(*content);
        ASSERT_TRUE(seq) << "a torn or mixed file of " << content->size() << " bytes";
        if (stop == StopAt::BeforeRename) {
            EXPECT_EQ(*seq, lastDone) << "killed before the rename: the old content";
            ++leftAtTemporary;
        } else if (stop == StopAt::AfterRename) {
            EXPECT_EQ(*seq, lastDone + 1) << "killed after the rename: the new content";
        } else {
            EXPECT_TRUE(*seq == lastDone || *seq == lastDone + 1) << *seq << " after " << lastDone;
        }
        onDisk = *seq;
    }
    // A kill between writing and renaming leaves its hidden temporary file, never read as the target.
    int temporaries = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        if (entry.path().filename().string().rfind(".record.tmp-", 0) == 0) ++temporaries;
    }
    EXPECT_GE(temporaries, leftAtTemporary);
}
