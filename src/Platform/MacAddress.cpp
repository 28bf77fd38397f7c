#include "Platform/MacAddress.h"

#include "Platform/AtomicFile.h"
#include "Platform/HostInfo.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace zub {
namespace {

constexpr const char* kPrimaryName = "en0";
constexpr const char* kSysfsInterfaces = "/sys/class/net";

struct DirectoryOverride {
    std::mutex mutex;
    std::optional<std::string> directory;  // guarded by mutex
};

DirectoryOverride& directoryOverride() {
    static auto* s = new DirectoryOverride();  // never destroyed
    return *s;
}

std::filesystem::path interfaceDirectory() {
    DirectoryOverride& s = directoryOverride();
    {
        std::lock_guard lock(s.mutex);
        if (s.directory) return *s.directory;
    }
    return HostInfo::resolve(kSysfsInterfaces);
}

bool isDirectory(const std::filesystem::path& path) {
    std::error_code ec;
    return std::filesystem::is_directory(path, ec);
}

bool entryExists(const std::filesystem::path& path) {
    std::error_code ec;
    return std::filesystem::exists(path, ec);
}

bool validName(const std::string& name) {
    return !name.empty() && name.size() < IFNAMSIZ && name.find('/') == std::string::npos && name != "." &&
           name != "..";
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// A small numeric sysfs attribute ("ifindex", "type"); std::nullopt when it is
// missing or not a number.
std::optional<long> numberAttribute(const std::filesystem::path& interface, const char* attribute) {
    const auto text = AtomicFile::read((interface / attribute).string());
    if (!text) return std::nullopt;
    std::string s(text->begin(), text->end());
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
    long value = 0;
    const auto r = std::from_chars(s.data(), s.data() + s.size(), value);
    if (r.ec != std::errc() || r.ptr != s.data() + s.size()) return std::nullopt;
    return value;
}

// Backed by a device (virtual interfaces have no "device" entry), not a bridge and
// not a loopback.
bool isPhysical(const std::filesystem::path& interface) {
    return entryExists(interface / "device") && !entryExists(interface / "bridge") &&
           numberAttribute(interface, "type") != ARPHRD_LOOPBACK;
}

bool hasHardwareAddress(const std::optional<Data>& address) {
    return address && std::any_of(address->begin(), address->end(), [](std::uint8_t b) { return b != 0; });
}

std::optional<Data> readWithIoctl(const std::string& interfaceName) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        std::fprintf(stderr, "socket() returned %d\n", errno);
        return std::nullopt;
    }
    ifreq request{};
    std::memcpy(request.ifr_name, interfaceName.data(), interfaceName.size());
    const int rc = ::ioctl(fd, SIOCGIFHWADDR, &request);
    const int error = errno;
    ::close(fd);
    if (rc != 0) {
        if (error != ENODEV) std::fprintf(stderr, "SIOCGIFHWADDR returned %d\n", error);
        return std::nullopt;
    }
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(request.ifr_hwaddr.sa_data);
    return Data(bytes, bytes + 6);
}

// The sysfs directory is missing: only the real machine's kernel can still be
// asked, and only by name.
bool sysfsMissingOnTheRealMachine(const std::filesystem::path& directory) {
    return !isDirectory(directory) && directory == std::filesystem::path(kSysfsInterfaces);
}

}  // namespace

void MacAddress::setInterfaceRoot(const std::optional<std::string>& directory) {
    DirectoryOverride& s = directoryOverride();
    std::lock_guard lock(s.mutex);
    s.directory = directory;
}

std::optional<Data> MacAddress::parseAddressText(const std::string& text) {
    std::string t = text;
    while (!t.empty() && (t.back() == '\n' || t.back() == '\r' || t.back() == ' ')) t.pop_back();
    Data out;
    std::size_t i = 0;
    while (i < t.size()) {
        if (!out.empty()) {
            if (t[i] != ':') return std::nullopt;
            ++i;
        }
        if (i + 2 > t.size()) return std::nullopt;
        const int hi = hexDigit(t[i]);
        const int lo = hexDigit(t[i + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        out.push_back(static_cast<std::uint8_t>(hi * 16 + lo));
        i += 2;
    }
    return out;
}

std::optional<Data> MacAddress::read(const std::string& interfaceName) {
    if (!validName(interfaceName)) return std::nullopt;
    const std::filesystem::path directory = interfaceDirectory();
    if (sysfsMissingOnTheRealMachine(directory)) return readWithIoctl(interfaceName);
    int error = 0;
    auto text = AtomicFile::read((directory / interfaceName / "address").string(), &error);
    if (!text) {
        if (error != ENOENT && error != ENOTDIR) {
            std::fprintf(stderr, "reading the address of %s returned %d\n", interfaceName.c_str(), error);
        }
        return std::nullopt;
    }
    auto address = parseAddressText(std::string(text->begin(), text->end()));
    if (!address) {
        std::fprintf(stderr, "the address of %s is malformed\n", interfaceName.c_str());
        return std::nullopt;
    }
    return address;
}

std::optional<std::string> MacAddress::primaryInterfaceName() {
    const std::filesystem::path directory = interfaceDirectory();
    if (sysfsMissingOnTheRealMachine(directory)) return kPrimaryName;  // asked by name
    if (isDirectory(directory / kPrimaryName)) return kPrimaryName;

    struct Candidate {
        long ifindex;
        std::string name;
    };
    std::vector<Candidate> candidates;
    std::error_code ec;
    for (std::filesystem::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (!validName(name) || !isPhysical(it->path()) || !hasHardwareAddress(read(name))) continue;
        // An interface without an index sorts after those that have one.
        candidates.push_back({numberAttribute(it->path(), "ifindex").value_or(LONG_MAX), name});
    }
    if (candidates.empty()) return std::nullopt;
    const auto first = std::min_element(candidates.begin(), candidates.end(), [](const auto& a, const auto& b) {
        return a.ifindex != b.ifindex ? a.ifindex < b.ifindex : a.name < b.name;
    });
    return first->name;
}

std::optional<Data> MacAddress::primary() {
    const auto name = primaryInterfaceName();
    return name ? read(*name) : std::nullopt;
}

std::optional<std::string> MacAddress::displayString(const std::optional<Data>& address) {
    if (!address || address->empty()) return std::nullopt;
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    for (std::uint8_t b : *address) {
        if (!out.empty()) out.push_back(':');
        out.push_back(kHex[b >> 4]);
        out.push_back(kHex[b & 0x0f]);
    }
    return out;
}

}  // namespace zub
