// The real file layer with faults a test asks for: installed for every library
// call while the object lives (zub::AtomicFile::install), it forwards to the
// POSIX implementation except for the next failures it was told to inject.
//
//   zubtest::FaultyFileSystem faults;
//   faults.failReads(1, EIO, "app.defaults");   // the next read of a path containing it
//   EXPECT_FALSE(defaults.synchronize());
//   EXPECT_EQ(faults.injected(), 1);
//
// Thread-safe. Only one may be installed at a time.
#pragma once

#include "Platform/AtomicFile.h"

#include <cerrno>
#include <mutex>
#include <string>

namespace zubtest {

class FaultyFileSystem : public zub::FileSystemWrapper {
public:
    FaultyFileSystem();
    ~FaultyFileSystem() override;
    FaultyFileSystem(const FaultyFileSystem&) = delete;
    FaultyFileSystem& operator=(const FaultyFileSystem&) = delete;

    /// The next `count` reads of a path containing `pathPart` fail with `error`.
    void failReads(int count, int error, std::string pathPart = "");
    /// The next `count` temporary files fail to be written (ENOSPC: a full disk).
    void failWrites(int count, int error = ENOSPC);
    /// How many faults were injected so far.
    int injected() const;

    std::optional<zub::Data> readFile(const std::string& path, int& error) override;
    bool writeTemporaryFile(const std::string& target, const zub::Data& data, unsigned mode,
                            std::string& temporaryPath, int& error) override;

private:
    struct Fault {
        int count = 0;
        int error = 0;
        std::string pathPart;
    };
    // True (with `error` set) when the fault applies to this call.
    bool take(Fault& fault, const std::string& path, int& error);

    mutable std::mutex mutex_;
    Fault reads_;    // guarded by mutex_
    Fault writes_;   // guarded by mutex_
    int injected_ = 0;  // guarded by mutex_
};

}  // namespace zubtest
