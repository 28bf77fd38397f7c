#include "support/NetNamespace.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <mutex>
#include <sstream>

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
    std::istringstream words(args);
    for (std::string word; words >> word;) argv.push_back(word);
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
           ip("link set zv1 up") == 0 && ask("carrier zv0 1") == "carrier zv0 1";
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

}  // namespace

void say(const std::string& line) {
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    std::fputs((line + "\n").c_str(), stdout);
    std::fflush(stdout);
}

int serveNamespace(const std::function<std::string(const std::string& command, const std::string& arg)>& answer) {
    if (::unshare(CLONE_NEWNET) != 0) {
        say(std::string("skip cannot make a network namespace: ") + std::strerror(errno));
        return 77;
    }
    say("ready");
    std::string line;
    while (std::getline(std::cin, line) && line != "quit") {
        const auto space = line.find(' ');
        const std::string command = line.substr(0, space);
        const std::string arg = space == std::string::npos ? "" : line.substr(space + 1);
        std::string reply;
        if (command == "carrier") {
            const auto sep = arg.find(' ');
            const bool wanted = sep != std::string::npos && arg.substr(sep + 1) == "1";
            reply = awaitCarrier(arg.substr(0, sep), wanted) ? "carrier " + arg : "timeout";
        } else {
            reply = answer(command, arg);
        }
        if (!reply.empty()) say(reply);
    }
    return 0;
}

}  // namespace zubtest
