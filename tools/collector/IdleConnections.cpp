#include "IdleConnections.h"

#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cstdlib>
#include <vector>

namespace zubcollector {

namespace {

int localPortOf(int fd) {
    sockaddr_storage local{};
    socklen_t length = sizeof local;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) return -1;
    if (local.ss_family == AF_INET) return ntohs(reinterpret_cast<const sockaddr_in*>(&local)->sin_port);
    if (local.ss_family == AF_INET6) return ntohs(reinterpret_cast<const sockaddr_in6*>(&local)->sin6_port);
    return -1;
}

bool isListening(int fd) {
    int listening = 0;
    socklen_t length = sizeof listening;
    return ::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length) == 0 && listening != 0;
}

}  // namespace

void wakeIdleConnections(int port) {
    if (port <= 0) return;
    // The descriptors are listed first: shutting one down while the directory
    // stream is open would be harmless, but a list keeps the walk simple.
    std::vector<int> descriptors;
    if (DIR* dir = ::opendir("/proc/self/fd")) {
        while (const dirent* entry = ::readdir(dir)) {
            if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
            descriptors.push_back(std::atoi(entry->d_name));
        }
        ::closedir(dir);
    }
    for (int fd : descriptors) {
        struct stat info {};
        if (::fstat(fd, &info) != 0 || !S_ISSOCK(info.st_mode)) continue;
        if (isListening(fd) || localPortOf(fd) != port) continue;
        ::shutdown(fd, SHUT_RD);
    }
}

}  // namespace zubcollector
