#include "support/NetNamespace.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace zubtest {

NetNamespace::NetNamespace(const std::string& name) : child_({std::string(ZUB_TEST_BIN_DIR) + "/" + name}) {
    first_ = child_.readLine().value_or("(no answer)");
}

NetNamespace::~NetNamespace() {
    child_.writeLine("quit");
    child_.closeInput();
}

std::string NetNamespace::problem() const {
    if (!child_.started()) return "the helper program did not start";
    if (first_ == "ready") return "";
    return first_;
}

int NetNamespace::ip(const std::string& args) {
    std::vector<std::string> argv{"nsenter", "--net=/proc/" + std::to_string(child_.pid()) + "/ns/net", "ip"};
    std::size_t pos = 0;
    while (pos < args.size()) {
        const auto end = std::min(args.find(' ', pos), args.size());
        argv.push_back(args.substr(pos, end - pos));
        pos = end + 1;
    }
    return ChildProcess::run(argv);
}

std::string NetNamespace::ask(const std::string& command) {
    child_.writeLine(command);
    return next();
}

std::string NetNamespace::next() {
    return child_.readLine().value_or("(no answer)");
}

std::vector<std::string> NetNamespace::finish() {
    child_.writeLine("quit");
    child_.closeInput();
    std::vector<std::string> rest;
    while (auto line = child_.readLine()) rest.push_back(*line);
    exitCode_ = child_.wait();
    return rest;
}

bool NetNamespace::addLink() {
    return ip("link add zv0 type veth peer name zv1") == 0 && ip("link set zv0 up") == 0 &&
           ip("link set zv1 up") == 0 && carrier(true);
}

bool NetNamespace::carrier(bool on) {
    const std::string want = std::string("carrier zv0 ") + (on ? "1" : "0");
    return ask(want) == want;
}

namespace {

bool running(const std::string& ifname) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    ifreq req{};
    std::strncpy(req.ifr_name, ifname.c_str(), IFNAMSIZ - 1);
    const bool up = ::ioctl(fd, SIOCGIFFLAGS, &req) == 0 && (req.ifr_flags & IFF_RUNNING) != 0;
    ::close(fd);
    return up;
}

}  // namespace

bool awaitCarrier(const std::string& ifname, bool wanted) {
    const int nl = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (nl < 0) return false;
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_LINK;
    bool reached = false;
    if (::bind(nl, reinterpret_cast<sockaddr*>(&local), sizeof local) == 0) {
        char buffer[16384];
        for (int events = 0; events < 1000; ++events) {
            if (running(ifname) == wanted) {
                reached = true;
                break;
            }
            pollfd p{nl, POLLIN, 0};
            if (::poll(&p, 1, 10000) <= 0) break;
            if (::recv(nl, buffer, sizeof buffer, 0) < 0 && errno != ENOBUFS && errno != EINTR) break;
        }
    }
    ::close(nl);
    return reached;
}

}  // namespace zubtest
