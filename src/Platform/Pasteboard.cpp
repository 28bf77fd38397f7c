#include "Platform/Pasteboard.h"

#include "Common/ZUBProHelper.h"
#include "Platform/AtomicFile.h"
#include "Platform/Paths.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zub {
namespace {

constexpr unsigned kFileMode = 0600;
constexpr unsigned kDirMode = 0700;

bool isDirectory(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Names of the entries of a directory, without "." and "..".
std::vector<std::string> listDirectory(const std::string& path) {
    std::vector<std::string> out;
    DIR* dir = ::opendir(path.c_str());
    if (dir == nullptr) return out;
    while (dirent* entry = ::readdir(dir)) {
        std::string n = entry->d_name;
        if (n != "." && n != "..") out.push_back(std::move(n));
    }
    ::closedir(dir);
    return out;
}

}  // namespace

std::string Pasteboard::rootDirectory() {
    return Paths::dataHome() + "/ZUBCocoa/pasteboards";
}

std::optional<Pasteboard> Pasteboard::pasteboardWithName(const std::string& name) {
    const std::string directory = rootDirectory() + "/" + Paths::encodeComponent(name);
    int error = 0;
    if (!AtomicFile::createDirectories(directory, kDirMode, &error)) {
        ZUBProHelper::LogDebug("[ERROR] pasteboard %@ not created (%@)", name, std::string(std::strerror(error)));
        return std::nullopt;
    }
    return Pasteboard(name, directory);
}

std::optional<Pasteboard> Pasteboard::existingPasteboardWithName(const std::string& name) {
    const std::string directory = rootDirectory() + "/" + Paths::encodeComponent(name);
    if (!isDirectory(directory)) return std::nullopt;
    return Pasteboard(name, directory);
}

std::optional<Data> Pasteboard::dataForType(const std::string& type) const {
    return AtomicFile::read(directory_ + "/" + Paths::encodeComponent(type));
}

bool Pasteboard::setData(const Data& data, const std::string& type) const {
    int error = 0;
    // The directory may have been released by another process since this handle
    // was made: recreate it.
    if (!AtomicFile::createDirectories(directory_, kDirMode, &error) ||
        !AtomicFile::write(directory_ + "/" + Paths::encodeComponent(type), data, kFileMode, &error)) {
        ZUBProHelper::LogDebug("[ERROR] pasteboard %@ type %@ not written (%@)", name_, type,
                               std::string(std::strerror(error)));
        return false;
    }
    return true;
}

std::vector<std::string> Pasteboard::types() const {
    std::vector<std::string> out;
    for (const auto& entry : listDirectory(directory_)) {
        if (entry.empty() || entry[0] == '.') continue;  // temporary files of writes in progress
        if (auto type = Paths::decodeComponent(entry)) out.push_back(*type);
    }
    return out;
}

bool Pasteboard::clearContents() const {
    bool ok = true;
    for (const auto& entry : listDirectory(directory_)) {
        if (entry.empty() || entry[0] == '.') continue;
        ok = AtomicFile::remove(directory_ + "/" + entry) && ok;
    }
    return ok;
}

bool Pasteboard::releaseGlobally() const {
    for (const auto& entry : listDirectory(directory_)) {
        ::unlink((directory_ + "/" + entry).c_str());
    }
    return ::rmdir(directory_.c_str()) == 0 || errno == ENOENT;
}

}  // namespace zub
