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
// implementation (FileSystemWrapper) to inject a failing read, a full disk or a
// failing rename, or to stop a process between two steps of a write, the way a
// storage engine's environment seam is wrapped. All calls are thread-safe; none
// throws.
#pragma once

#include <ZUBCocoa/ZUBValue.h>

#include <optional>
#include <string>

namespace zub {

/// The seam: the file operations persistent state needs. An implementation
/// provides the primitives; the atomic replacement is composed of them here, so
/// a wrapper that changes one primitive (a full disk, a failing rename, a stop
/// between two steps) changes every write made through it.
class FileSystem {
public:
    virtual ~FileSystem() = default;
    /// The whole file. On failure std::nullopt with `error` set to the errno
    /// value (ENOENT when there is no such file).
    virtual std::optional<Data> readFile(const std::string& path, int& error) = 0;
    /// Writes `data` to a new hidden file beside `target` (".<name>.tmp-XXXXXX"),
    /// with exactly `mode` (not reduced by the umask), flushed to the disk (fsync)
    /// and closed; its path goes to `temporaryPath`. The directory must exist. On
    /// failure `error` is set and nothing is left behind.
    virtual bool writeTemporaryFile(const std::string& target, const Data& data, unsigned mode,
                                    std::string& temporaryPath, int& error) = 0;
    /// Renames `from` over `to` in one step (rename(2)).
    virtual bool renameFile(const std::string& from, const std::string& to, int& error) = 0;
    /// Flushes a directory's entries (a rename made in it) to the disk.
    virtual bool syncDirectory(const std::string& path, int& error) = 0;
    /// Creates the directory and any missing parents; each directory created gets
    /// exactly `mode`. Existing directories are left as they are. True when the
    /// directory exists afterwards.
    virtual bool createDirectories(const std::string& path, unsigned mode, int& error) = 0;
    /// Removes a file; true when it is gone (also when it did not exist).
    virtual bool removeFile(const std::string& path, int& error) = 0;

    /// Replaces the file atomically (see above): a temporary file, renamed over
    /// the target, then the directory synced. False on failure, with `error` set;
    /// the old content is then untouched and the temporary file removed.
    bool writeFileAtomically(const std::string& path, const Data& data, unsigned mode, int& error);

    /// The real implementation over POSIX calls (never destroyed).
    static FileSystem& posix();
};

/// Forwards every primitive to a target; override what a test wants to change.
class FileSystemWrapper : public FileSystem {
public:
    explicit FileSystemWrapper(FileSystem& target) : target_(target) {}
    std::optional<Data> readFile(const std::string& path, int& error) override {
        return target_.readFile(path, error);
    }
    bool writeTemporaryFile(const std::string& target, const Data& data, unsigned mode, std::string& temporaryPath,
                            int& error) override {
        return target_.writeTemporaryFile(target, data, mode, temporaryPath, error);
    }
    bool renameFile(const std::string& from, const std::string& to, int& error) override {
        return target_.renameFile(from, to, error);
    }
    bool syncDirectory(const std::string& path, int& error) override { return target_.syncDirectory(path, error); }
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
