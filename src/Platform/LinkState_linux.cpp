// LinkState and LinkMonitor over rtnetlink.
#include "Platform/LinkState.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <vector>

namespace zub {

struct LinkState::Target {
    enum class Kind { Internet, Address, HostName };
    Kind kind = Kind::Internet;
    int family = AF_UNSPEC;           // Address: AF_INET or AF_INET6
    unsigned char address[16] = {};   // Address: network byte order
    std::string name;                 // HostName: as given
    bool judgedAsInternet = true;     // Address: the any-address; HostName: not numeric
};

namespace {

using namespace ReachabilityFlag;

constexpr std::size_t kBufferSize = 64 * 1024;

// One rtnetlink socket, closed with the object.
class Netlink {
public:
    explicit Netlink(std::uint32_t groups = 0, bool nonBlocking = false) {
        fd_ = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | (nonBlocking ? SOCK_NONBLOCK : 0), NETLINK_ROUTE);
        if (fd_ < 0) return;
        sockaddr_nl local{};
        local.nl_family = AF_NETLINK;
        local.nl_groups = groups;
        socklen_t len = sizeof local;
        if (::bind(fd_, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0 ||
            ::getsockname(fd_, reinterpret_cast<sockaddr*>(&local), &len) != 0) {
            ::close(fd_);
            fd_ = -1;
            return;
        }
        portId_ = local.nl_pid;
    }
    ~Netlink() {
        if (fd_ >= 0) ::close(fd_);
    }
    Netlink(const Netlink&) = delete;
    Netlink& operator=(const Netlink&) = delete;

    bool ok() const { return fd_ >= 0; }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

    enum class Outcome { Done, KernelError, Failed };

    // Sends one request and hands every reply message to `onMessage` until the
    // dump ends (or, for a single request, until the first reply). A negative
    // acknowledgement gives KernelError with the errno value in `kernelError`.
    template <typename OnMessage>
    Outcome transact(nlmsghdr* request, OnMessage&& onMessage, int* kernelError = nullptr) {
        if (fd_ < 0) return Outcome::Failed;
        const bool dump = (request->nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP;
        request->nlmsg_seq = ++seq_;
        request->nlmsg_pid = 0;
        sockaddr_nl kernel{};
        kernel.nl_family = AF_NETLINK;
        ssize_t sent;
        do {
            sent = ::sendto(fd_, request, request->nlmsg_len, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel);
        } while (sent < 0 && errno == EINTR);
        if (sent != static_cast<ssize_t>(request->nlmsg_len)) return Outcome::Failed;

        std::vector<char> buffer(kBufferSize);
        for (;;) {
            pollfd p{fd_, POLLIN, 0};
            const int ready = ::poll(&p, 1, LinkState::kReplyTimeoutMs);
            if (ready < 0 && errno == EINTR) continue;
            if (ready <= 0) return Outcome::Failed;
            const ssize_t got = ::recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (got < 0) {
                if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
                return Outcome::Failed;
            }
            if (got == 0) return Outcome::Failed;
            unsigned int remaining = static_cast<unsigned int>(got);
            for (auto* h = reinterpret_cast<nlmsghdr*>(buffer.data()); NLMSG_OK(h, remaining);
                 h = NLMSG_NEXT(h, remaining)) {
                if (h->nlmsg_seq != seq_ || h->nlmsg_pid != portId_) continue;
                if (h->nlmsg_type == NLMSG_DONE) return Outcome::Done;
                if (h->nlmsg_type == NLMSG_ERROR) {
                    if (h->nlmsg_len < NLMSG_LENGTH(sizeof(nlmsgerr))) return Outcome::Failed;
                    const auto* err = static_cast<const nlmsgerr*>(NLMSG_DATA(h));
                    if (err->error == 0) return Outcome::Done;
                    if (kernelError) *kernelError = -err->error;
                    return Outcome::KernelError;
                }
                onMessage(h);
                if (!dump) return Outcome::Done;
            }
        }
    }

private:
    int fd_ = -1;
    std::uint32_t portId_ = 0;
    std::uint32_t seq_ = 0;
};

struct DumpRequest {
    nlmsghdr header;
    union {
        ifinfomsg link;
        rtmsg route;
    } body;
};

// ifindex -> interface flags (IFF_*).
bool readLinks(Netlink& nl, std::map<int, unsigned>& links) {
    DumpRequest req{};
    req.header.nlmsg_len = NLMSG_LENGTH(sizeof(ifinfomsg));
    req.header.nlmsg_type = RTM_GETLINK;
    req.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    req.body.link.ifi_family = AF_UNSPEC;
    const auto outcome = nl.transact(&req.header, [&](const nlmsghdr* h) {
        if (h->nlmsg_type != RTM_NEWLINK || h->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) return;
        const auto* ifi = static_cast<const ifinfomsg*>(NLMSG_DATA(h));
        links[ifi->ifi_index] = ifi->ifi_flags;
    });
    return outcome == Netlink::Outcome::Done;
}

bool carriesTraffic(const std::map<int, unsigned>& links, int ifindex, bool allowLoopback) {
    const auto it = links.find(ifindex);
    if (it == links.end()) return false;
    const unsigned f = it->second;
    if ((f & IFF_UP) == 0 || (f & IFF_RUNNING) == 0) return false;
    return allowLoopback || (f & IFF_LOOPBACK) == 0;
}

struct RouteAttrs {
    int oif = 0;
    bool hasGateway = false;
    bool hasNexthopObject = false;
    std::uint32_t table = 0;
    const rtnexthop* multipath = nullptr;
    int multipathLen = 0;
};

RouteAttrs parseRoute(const nlmsghdr* h) {
    RouteAttrs out;
    const auto* r = static_cast<const rtmsg*>(NLMSG_DATA(h));
    out.table = r->rtm_table;
    int len = static_cast<int>(RTM_PAYLOAD(h));
    for (auto* a = RTM_RTA(r); RTA_OK(a, len); a = RTA_NEXT(a, len)) {
        const auto payload = RTA_PAYLOAD(a);
        switch (a->rta_type) {
            case RTA_OIF:
                if (payload >= sizeof(std::int32_t)) std::memcpy(&out.oif, RTA_DATA(a), sizeof(std::int32_t));
                break;
            case RTA_GATEWAY:
            case RTA_VIA:
                out.hasGateway = true;
                break;
            case RTA_TABLE:
                if (payload >= sizeof(std::uint32_t)) std::memcpy(&out.table, RTA_DATA(a), sizeof(std::uint32_t));
                break;
            case RTA_MULTIPATH:
                out.multipath = static_cast<const rtnexthop*>(RTA_DATA(a));
                out.multipathLen = static_cast<int>(payload);
                break;
            case RTA_NH_ID:
                out.hasNexthopObject = true;
                break;
            default:
                break;
        }
    }
    return out;
}

bool anyUsableInterface(const std::map<int, unsigned>& links) {
    for (const auto& [index, flags] : links) {
        if (carriesTraffic(links, index, false)) return true;
    }
    return false;
}

// Whether a route of this message is a usable default route.
bool isUsableDefaultRoute(const nlmsghdr* h, const std::map<int, unsigned>& links) {
    if (h->nlmsg_type != RTM_NEWROUTE || h->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) return false;
    const auto* r = static_cast<const rtmsg*>(NLMSG_DATA(h));
    if (r->rtm_dst_len != 0 || r->rtm_type != RTN_UNICAST) return false;
    if (r->rtm_flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN)) return false;
    const RouteAttrs attrs = parseRoute(h);
    if (attrs.table == RT_TABLE_LOCAL) return false;
    if (attrs.oif != 0) return carriesTraffic(links, attrs.oif, false);
    if (attrs.multipath) {
        int len = attrs.multipathLen;
        for (auto* nh = attrs.multipath; RTNH_OK(nh, len); len -= NLMSG_ALIGN(nh->rtnh_len), nh = RTNH_NEXT(nh)) {
            if (nh->rtnh_flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN)) continue;
            if (carriesTraffic(links, nh->rtnh_ifindex, false)) return true;
        }
        return false;
    }
    // A route through a nexthop object names no interface here; it is usable when
    // some interface can carry traffic at all.
    return attrs.hasNexthopObject && anyUsableInterface(links);
}

std::optional<std::uint32_t> internetFlags() {
    Netlink nl;
    if (!nl.ok()) return std::nullopt;
    std::map<int, unsigned> links;
    if (!readLinks(nl, links)) return std::nullopt;
    bool reachable = false;
    for (const int family : {AF_INET, AF_INET6}) {
        DumpRequest req{};
        req.header.nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg));
        req.header.nlmsg_type = RTM_GETROUTE;
        req.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
        req.body.route.rtm_family = static_cast<unsigned char>(family);
        const auto outcome = nl.transact(&req.header, [&](const nlmsghdr* h) {
            if (!reachable && isUsableDefaultRoute(h, links)) reachable = true;
        });
        // A kernel without IPv6 refuses the IPv6 dump; that is "no IPv6 route".
        if (outcome == Netlink::Outcome::Failed) return std::nullopt;
        if (outcome == Netlink::Outcome::KernelError && family == AF_INET) return std::nullopt;
    }
    return reachable ? kReachable : 0u;
}

std::optional<std::uint32_t> addressFlags(int family, const unsigned char* address) {
    Netlink nl;
    if (!nl.ok()) return std::nullopt;
    std::map<int, unsigned> links;
    if (!readLinks(nl, links)) return std::nullopt;

    const std::size_t addressLen = family == AF_INET ? 4 : 16;
    struct {
        nlmsghdr header;
        rtmsg route;
        char attrs[64];
    } req{};
    req.header.nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg));
    req.header.nlmsg_type = RTM_GETROUTE;
    req.header.nlmsg_flags = NLM_F_REQUEST;
    req.route.rtm_family = static_cast<unsigned char>(family);
    req.route.rtm_dst_len = static_cast<unsigned char>(addressLen * 8);
    auto* dst = reinterpret_cast<rtattr*>(reinterpret_cast<char*>(&req) + NLMSG_ALIGN(req.header.nlmsg_len));
    dst->rta_type = RTA_DST;
    dst->rta_len = static_cast<unsigned short>(RTA_LENGTH(addressLen));
    std::memcpy(RTA_DATA(dst), address, addressLen);
    req.header.nlmsg_len = NLMSG_ALIGN(req.header.nlmsg_len) + RTA_ALIGN(dst->rta_len);

    std::uint32_t flags = 0;
    int kernelError = 0;
    const auto outcome = nl.transact(&req.header, [&](const nlmsghdr* h) {
        if (h->nlmsg_type != RTM_NEWROUTE || h->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) return;
        const auto* r = static_cast<const rtmsg*>(NLMSG_DATA(h));
        const RouteAttrs attrs = parseRoute(h);
        if (r->rtm_type == RTN_LOCAL) {
            flags = kReachable | kIsLocalAddress | kIsDirect;
        } else if (r->rtm_type == RTN_UNICAST && carriesTraffic(links, attrs.oif, true)) {
            flags = kReachable | (attrs.hasGateway ? 0u : kIsDirect);
        }
    }, &kernelError);
    if (outcome == Netlink::Outcome::Failed) return std::nullopt;
    // A refused lookup (network or host unreachable) means: no route, nothing reachable.
    return flags;
}

std::string addressText(int family, const unsigned char* address) {
    char text[INET6_ADDRSTRLEN] = {};
    if (!::inet_ntop(family, address, text, sizeof text)) return "?";
    return text;
}

}  // namespace

LinkState::LinkState(std::unique_ptr<Target> target) : target_(std::move(target)) {}
LinkState::~LinkState() = default;

std::unique_ptr<LinkState> LinkState::forInternet() {
    return std::unique_ptr<LinkState>(new LinkState(std::make_unique<Target>()));
}

std::unique_ptr<LinkState> LinkState::forAddress(const sockaddr* address) {
    if (!address) return nullptr;
    auto target = std::make_unique<Target>();
    target->kind = Target::Kind::Address;
    target->family = address->sa_family;
    if (address->sa_family == AF_INET) {
        const auto* in = reinterpret_cast<const sockaddr_in*>(address);
        std::memcpy(target->address, &in->sin_addr, 4);
        target->judgedAsInternet = in->sin_addr.s_addr == htonl(INADDR_ANY);
    } else if (address->sa_family == AF_INET6) {
        const auto* in6 = reinterpret_cast<const sockaddr_in6*>(address);
        std::memcpy(target->address, &in6->sin6_addr, 16);
        target->judgedAsInternet = IN6_IS_ADDR_UNSPECIFIED(&in6->sin6_addr);
    } else {
        return nullptr;
    }
    return std::unique_ptr<LinkState>(new LinkState(std::move(target)));
}

std::unique_ptr<LinkState> LinkState::forHostName(std::string_view name) {
    if (name.empty() || name.find('\0') != std::string_view::npos) return nullptr;
    auto target = std::make_unique<Target>();
    target->kind = Target::Kind::HostName;
    target->name = std::string(name);
    std::string lower = target->name;
    for (char& c : lower) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    if (::inet_pton(AF_INET, target->name.c_str(), target->address) == 1) {
        target->family = AF_INET;
    } else if (::inet_pton(AF_INET6, target->name.c_str(), target->address) == 1) {
        target->family = AF_INET6;
    } else if (lower == "localhost" || (lower.size() > 10 && lower.ends_with(".localhost"))) {
        target->family = AF_INET;
        const in_addr loopback{htonl(INADDR_LOOPBACK)};
        std::memcpy(target->address, &loopback, 4);
    }
    if (target->family != AF_UNSPEC) {
        static const unsigned char zero[16] = {};
        target->judgedAsInternet = std::memcmp(target->address, zero, target->family == AF_INET ? 4 : 16) == 0;
    }
    return std::unique_ptr<LinkState>(new LinkState(std::move(target)));
}

std::optional<std::uint32_t> LinkState::flags() const {
    if (target_->family == AF_UNSPEC || target_->judgedAsInternet) return internetFlags();
    return addressFlags(target_->family, target_->address);
}

std::string LinkState::description() const {
    switch (target_->kind) {
        case Target::Kind::Internet:
            return "internet";
        case Target::Kind::Address:
            return "address " + addressText(target_->family, target_->address);
        case Target::Kind::HostName:
            return "host " + target_->name;
    }
    return "internet";
}

// ---------------------------------------------------------------- LinkMonitor

struct LinkMonitor::Listener {
    int netlink = -1;
    int wake = -1;
    std::atomic<bool> failed{false};  // the thread ended on an error
    ~Listener() {
        if (netlink >= 0) ::close(netlink);
        if (wake >= 0) ::close(wake);
    }
};

namespace {

// Waits for notices until stop() signals (returns 0) or the socket fails
// (returns the errno value).
int listenForNotices(LinkMonitor::Listener& listener, const LinkState& target, const LinkMonitor::Callback& callback,
                     std::optional<std::uint32_t> last) {
    std::vector<char> buffer(kBufferSize);
    for (;;) {
        pollfd fds[2] = {{listener.wake, POLLIN, 0}, {listener.netlink, POLLIN, 0}};
        const int ready = ::poll(fds, 2, -1);
        if (ready < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        if (fds[0].revents != 0) return 0;  // stop() signalled
        if (fds[1].revents == 0) continue;
        // Drain every pending notice; the state is read afresh once per batch.
        // An overrun (ENOBUFS) only means notices were lost: the fresh read covers it.
        for (;;) {
            const ssize_t got = ::recv(listener.netlink, buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (got > 0 || (got < 0 && (errno == EINTR || errno == ENOBUFS))) continue;
            if (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK) return errno;
            break;
        }
        const std::optional<std::uint32_t> now = target.flags();
        if (now != last) {
            last = now;
            try {
                callback(now.value_or(0));
            } catch (...) {
                // The callback's failure is its own; the listener keeps listening.
            }
        }
    }
}

void runListener(std::shared_ptr<LinkMonitor::Listener> listener, const LinkState* target,
                 LinkMonitor::Callback callback, LinkMonitor::FailureCallback onFailure,
                 std::optional<std::uint32_t> last) {
    ::pthread_setname_np(::pthread_self(), "zub-linkmon");
    const int error = listenForNotices(*listener, *target, callback, last);
    if (error == 0) return;
    listener->failed = true;
    try {
        if (onFailure) onFailure(error);
    } catch (...) {
        // The callback's failure is its own.
    }
}

}  // namespace

LinkMonitor::LinkMonitor(const LinkState& target, Callback callback, FailureCallback onFailure)
    : target_(target), callback_(std::move(callback)), onFailure_(std::move(onFailure)) {}

LinkMonitor::~LinkMonitor() {
    stop();
}

bool LinkMonitor::start() {
    std::thread ended;  // a listener that ended on a failure, joined outside the lock
    const bool running = [&] {
        std::lock_guard<std::mutex> lock(mutex_);
        if (listener_ && !listener_->failed) return true;
        if (listener_) {
            listener_.reset();
            ended = std::move(thread_);
        }
        auto listener = std::make_shared<Listener>();
        Netlink nl(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_IFADDR | RTMGRP_IPV6_ROUTE,
                   true);
        if (!nl.ok()) return false;
        listener->netlink = nl.release();
        listener->wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (listener->wake < 0) return false;
        // Read after subscribing, so that no change between the two goes unseen.
        const std::optional<std::uint32_t> baseline = target_.flags();
        const Callback callback = callback_ ? callback_ : Callback([](std::uint32_t) {});
        try {
            thread_ = std::thread(runListener, listener, &target_, callback, onFailure_, baseline);
        } catch (...) {
            return false;
        }
        listener_ = std::move(listener);
        return true;
    }();
    if (ended.joinable()) {
        if (ended.get_id() == std::this_thread::get_id()) {
            ended.detach();  // restarted from its own failure callback: it ends when that returns
        } else {
            ended.join();
        }
    }
    return running;
}

void LinkMonitor::stop() {
    std::thread thread;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!listener_) return;
        const std::uint64_t one = 1;
        ssize_t written;
        do {
            written = ::write(listener_->wake, &one, sizeof one);
        } while (written < 0 && errno == EINTR);
        listener_.reset();
        thread = std::move(thread_);
    }
    if (!thread.joinable()) return;
    if (thread.get_id() == std::this_thread::get_id()) {
        thread.detach();  // stopped from its own callback: it ends when the callback returns
    } else {
        thread.join();
    }
}

bool LinkMonitor::isRunning() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return listener_ && !listener_->failed;
}

}  // namespace zub
