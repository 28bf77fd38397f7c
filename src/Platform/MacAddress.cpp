#include "Platform/MacAddress.h"

#include "Platform/AtomicFile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zub {
namespace {

constexpr const char* kDefaultRoot = "/sys/class/net";

struct RootState {
    std::mutex mutex;
    std::optional<std::string> root;
};

RootState& rootState() {
    static auto* s = new RootState();  // never destroyed
    return *s;
}

std::string interfaceRoot() {
    RootState& s = rootState();
    std::lock_guard lock(s.mutex);
    return s.root.value_or(kDefaultRoot);
}

bool isDirectory(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
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

}  // namespace

void MacAddress::setInterfaceRoot(const std::optional<std::string>& root) {
    RootState& s = rootState();
    std::lock_guard lock(s.mutex);
    s.root = root;
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
    if (interfaceName.empty() || interfaceName.size() >= IFNAMSIZ || interfaceName.find('/') != std::string::npos ||
        interfaceName == "." || interfaceName == "..") {
        return std::nullopt;
    }
    const std::string root = interfaceRoot();
    if (!isDirectory(root)) {
        // No sysfs (a container without it): ask the kernel directly, unless a
        // test moved the root.
        if (root == kDefaultRoot) return readWithIoctl(interfaceName);
        return std::nullopt;
    }
    int error = 0;
    auto text = AtomicFile::read(root + "/" + interfaceName + "/address", &error);
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
