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

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

}  // namespace

std::string Pasteboard::rootDirectory() {
    return Paths::dataHome() + "/ZUBCocoa/pasteboards";
}

std::string Pasteboard::encodeComponent(const std::string& text) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                           c == '-' || c == '_' || (c == '.' && i > 0);
        if (plain) {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            out.push_back(kHex[c >> 4]);
            out.push_back(kHex[c & 0x0f]);
        }
    }
    if (out.empty()) out = "%";  // the empty name still gets an entry of its own
    return out;
}

std::optional<std::string> Pasteboard::decodeComponent(const std::string& component) {
    if (component == "%") return std::string();
    std::string out;
    for (std::size_t i = 0; i < component.size(); ++i) {
        if (component[i] != '%') {
            out.push_back(component[i]);
            continue;
        }
        if (i + 2 >= component.size()) return std::nullopt;
        const int hi = hexValue(component[i + 1]);
        const int lo = hexValue(component[i + 2]);
        if (hi < 0 || lo < 0) return std::nullopt;
        out.push_back(static_cast<char>(hi * 16 + lo));
        i += 2;
    }
    return out;
}

std::optional<Pasteboard> Pasteboard::pasteboardWithName(const std::string& name) {
    const std::string directory = rootDirectory() + "/" + encodeComponent(name);
    int error = 0;
    if (!AtomicFile::createDirectories(directory, kDirMode, &error)) {
        ZUBProHelper::LogDebug("[ERROR] pasteboard %@ not created (%@)", name, std::string(std::strerror(error)));
        return std::nullopt;
    }
    return Pasteboard(name, directory);
}

std::optional<Pasteboard> Pasteboard::existingPasteboardWithName(const std::string& name) {
    const std::string directory = rootDirectory() + "/" + encodeComponent(name);
    if (!isDirectory(directory)) return std::nullopt;
    return Pasteboard(name, directory);
}

std::optional<Data> Pasteboard::dataForType(const std::string& type) const {
    return AtomicFile::read(directory_ + "/" + encodeComponent(type));
}

bool Pasteboard::setData(const Data& data, const std::string& type) const {
    int error = 0;
    // The directory may have been released by another process since this handle
    // was made: recreate it.
    if (!AtomicFile::createDirectories(directory_, kDirMode, &error) ||
        !AtomicFile::write(directory_ + "/" + encodeComponent(type), data, kFileMode, &error)) {
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
        if (auto type = decodeComponent(entry)) out.push_back(*type);
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
