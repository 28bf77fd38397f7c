// Whole-file reads and crash-safe whole-file writes for the library's small
// persistent files (user defaults, pasteboard blobs, event log files).
//
// A write goes to a temporary file in the target's directory, is flushed to the
// disk (fsync), renamed over the target and the directory is flushed too: a
// reader, or the next run after a crash or SIGKILL at any moment, sees either the
// old or the new content, never a mixture or a torn file. A process killed in
// the middle may leave a hidden temporary file (".<name>.tmp-XXXXXX") beside the
// target; it is never read as the target.
//
// Every operation goes through the installed FileSystem. Tests wrap the POSIX
// implementation (FileSystemWrapper) to inject a full disk or a failing rename,
// the way a storage engine's environment seam is wrapped. All calls are
// thread-safe; none throws.
#pragma once

#include <ZUBCocoa/ZUBValue.h>

#include <optional>
#include <string>

namespace zub {

/// The seam: the file operations persistent state needs.
class FileSystem {
public:
    virtual ~FileSystem() = default;
    /// The whole file. On failure std::nullopt with `error` set to the errno
    /// value (ENOENT when there is no such file).
    virtual std::optional<Data> readFile(const std::string& path, int& error) = 0;
    /// Replaces the file atomically (see above); the new file gets exactly `mode`
    /// (not reduced by the umask). The directory must exist. False on failure,
    /// with `error` set; the old content is then untouched.
    virtual bool writeFileAtomically(const std::string& path, const Data& data, unsigned mode, int& error) = 0;
    /// Creates the directory and any missing parents; each directory created gets
    /// exactly `mode`. Existing directories are left as they are. True when the
    /// directory exists afterwards.
    virtual bool createDirectories(const std::string& path, unsigned mode, int& error) = 0;
    /// Removes a file; true when it is gone (also when it did not exist).
    virtual bool removeFile(const std::string& path, int& error) = 0;

    /// The real implementation over POSIX calls (never destroyed).
    static FileSystem& posix();
};

/// Forwards every call to a target; override what a test wants to change.
class FileSystemWrapper : public FileSystem {
public:
    explicit FileSystemWrapper(FileSystem& target) : target_(target) {}
    std::optional<Data> readFile(const std::string& path, int& error) override {
        return target_.readFile(path, error);
    }
    bool writeFileAtomically(const std::string& path, const Data& data, unsigned mode, int& error) override {
        return target_.writeFileAtomically(path, data, mode, error);
    }
    bool createDirectories(const std::string& path, unsigned mode, int& error) override {
        return target_.createDirectories(path, mode, error);
    }
    bool removeFile(const std::string& path, int& error) override { return target_.removeFile(path, error); }

protected:
    FileSystem& target_;
};

/// The entry points the library calls; they use the installed FileSystem.
class AtomicFile {
public:
    /// The whole file, or std::nullopt (missing or unreadable; `error` receives
    /// the errno value when given).
    static std::optional<Data> read(const std::string& path, int* error = nullptr);
    /// Atomic replacement with the given mode (default 0600).
    static bool write(const std::string& path, const Data& data, unsigned mode = 0600, int* error = nullptr);
    static bool createDirectories(const std::string& path, unsigned mode = 0700, int* error = nullptr);
    static bool remove(const std::string& path, int* error = nullptr);

    /// Installs a file system for every later call; nullptr restores POSIX. The
    /// caller keeps it alive while installed.
    static void install(FileSystem* fileSystem);
    static FileSystem& current();
};

}  // namespace zub
