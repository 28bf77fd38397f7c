#include "Platform/AtomicFile.h"

#include "Common/ZUBProHelper.h"
#include "Platform/FileIO.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zub {

bool writeAll(int fd, const std::uint8_t* data, std::size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

namespace {

std::atomic<FileSystem*> installed{nullptr};

std::string parentOf(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

class PosixFileSystem final : public FileSystem {
public:
    std::optional<Data> readFile(const std::string& path, int& error) override {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            error = errno;
            return std::nullopt;
        }
        Data out;
        struct stat st {};
        if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0) {
            out.reserve(static_cast<std::size_t>(st.st_size));
        }
        std::uint8_t buffer[65536];
        for (;;) {
            const ssize_t n = ::read(fd, buffer, sizeof buffer);
            if (n < 0) {
                if (errno == EINTR) continue;
                error = errno;
                ::close(fd);
                return std::nullopt;
            }
            if (n == 0) break;
            out.insert(out.end(), buffer, buffer + n);
        }
        ::close(fd);
        error = 0;
        return out;
    }

    bool writeTemporaryFile(const std::string& target, const Data& data, unsigned mode, std::string& temporaryPath,
                            int& error) override {
        std::string base = target.substr(target.rfind('/') == std::string::npos ? 0 : target.rfind('/') + 1);
        if (base.size() > 200) base.resize(200);  // keep the temporary name within NAME_MAX
        std::string temp = parentOf(target) + "/." + base + ".tmp-XXXXXX";
        const int fd = ::mkostemp(temp.data(), O_CLOEXEC);
        if (fd < 0) {
            error = errno;
            return false;
        }
        auto fail = [&](int e) {
            error = e;
            ::close(fd);
            ::unlink(temp.c_str());
            return false;
        };
        if (::fchmod(fd, static_cast<mode_t>(mode)) != 0) return fail(errno);
        if (!writeAll(fd, data.data(), data.size())) return fail(errno);
        if (::fsync(fd) != 0) return fail(errno);
        if (::close(fd) != 0) {
            error = errno;
            ::unlink(temp.c_str());
            return false;
        }
        temporaryPath = std::move(temp);
        error = 0;
        return true;
    }

    bool renameFile(const std::string& from, const std::string& to, int& error) override {
        if (::rename(from.c_str(), to.c_str()) != 0) {
            error = errno;
            return false;
        }
        error = 0;
        return true;
    }

    bool syncDirectory(const std::string& path, int& error) override {
        const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0) {
            error = errno;
            return false;
        }
        const bool ok = ::fsync(fd) == 0;
        error = ok ? 0 : errno;
        ::close(fd);
        return ok;
    }

    bool createDirectories(const std::string& path, unsigned mode, int& error) override {
        if (path.empty()) {
            error = ENOENT;
            return false;
        }
        struct stat st {};
        if (::stat(path.c_str(), &st) == 0) {
            error = S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
            return S_ISDIR(st.st_mode);
        }
        // Walk down from the first component, creating what is missing.
        std::size_t pos = 0;
        while (pos != std::string::npos) {
            pos = path.find('/', pos + 1);
            const std::string part = path.substr(0, pos);
            if (part.empty() || part == "/") continue;
            if (::mkdir(part.c_str(), static_cast<mode_t>(mode)) == 0) {
                ::chmod(part.c_str(), static_cast<mode_t>(mode));  // exact mode, whatever the umask
            } else if (errno != EEXIST) {
                error = errno;
                return false;
            }
        }
        if (::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            error = ENOTDIR;
            return false;
        }
        error = 0;
        return true;
    }

    bool removeFile(const std::string& path, int& error) override {
        if (::unlink(path.c_str()) == 0 || errno == ENOENT) {
            error = 0;
            return true;
        }
        error = errno;
        return false;
    }
};

}  // namespace

bool FileSystem::writeFileAtomically(const std::string& path, const Data& data, unsigned mode, int& error) {
    std::string temporary;
    if (!writeTemporaryFile(path, data, mode, temporary, error)) return false;
    if (!renameFile(temporary, path, error)) {
        int ignored = 0;
        removeFile(temporary, ignored);
        return false;
    }
    // Makes the rename itself durable. The new content is in place either way, so
    // a failure here does not fail the write.
    int syncError = 0;
    if (!syncDirectory(parentOf(path), syncError)) {
        ZUBProHelper::LogDebug("[WARN] directory of %@ not synced (%@)", path, std::string(std::strerror(syncError)));
    }
    error = 0;
    return true;
}

FileSystem& FileSystem::posix() {
    static auto* fs = new PosixFileSystem();  // never destroyed
    return *fs;
}

FileSystem& AtomicFile::current() {
    FileSystem* fs = installed.load(std::memory_order_acquire);
    return fs != nullptr ? *fs : FileSystem::posix();
}

void AtomicFile::install(FileSystem* fileSystem) {
    installed.store(fileSystem, std::memory_order_release);
}

std::optional<Data> AtomicFile::read(const std::string& path, int* error) {
    int e = 0;
    auto out = current().readFile(path, e);
    if (error != nullptr) *error = e;
    return out;
}

bool AtomicFile::write(const std::string& path, const Data& data, unsigned mode, int* error) {
    int e = 0;
    const bool ok = current().writeFileAtomically(path, data, mode, e);
    if (error != nullptr) *error = e;
    return ok;
}

bool AtomicFile::createDirectories(const std::string& path, unsigned mode, int* error) {
    int e = 0;
    const bool ok = current().createDirectories(path, mode, e);
    if (error != nullptr) *error = e;
    return ok;
}

bool AtomicFile::remove(const std::string& path, int* error) {
    int e = 0;
    const bool ok = current().removeFile(path, e);
    if (error != nullptr) *error = e;
    return ok;
}

}  // namespace zub
