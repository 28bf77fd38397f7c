// WifiInfo on Linux: nl80211 over generic netlink (libnl-genl).
#include "Platform/WifiInfo.h"

#include <linux/nl80211.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <netlink/netlink.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <climits>
#include <cstring>

namespace zub {
namespace {

// A connected generic-netlink socket, freed with the object.
class GenlSocket {
public:
    GenlSocket() {
        sock_ = nl_socket_alloc();
        if (!sock_) return;
        if (genl_connect(sock_) != 0) {
            nl_socket_free(sock_);
            sock_ = nullptr;
            return;
        }
        timeval timeout{};
        timeout.tv_sec = WifiInfo::kReplyTimeoutMs / 1000;
        timeout.tv_usec = (WifiInfo::kReplyTimeoutMs % 1000) * 1000;
        ::setsockopt(nl_socket_get_fd(sock_), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    }
    ~GenlSocket() {
        if (sock_) nl_socket_free(sock_);
    }
    GenlSocket(const GenlSocket&) = delete;
    GenlSocket& operator=(const GenlSocket&) = delete;

    nl_sock* get() const { return sock_; }

    // Sends one dump request of `command` (with the interface index when given)
    // and runs `handler` on every reply. True when the dump completed.
    bool dump(int family, std::uint8_t command, int ifindex, nl_recvmsg_msg_cb_t handler, void* context) {
        nl_msg* msg = nlmsg_alloc();
        if (!msg) return false;
        bool ok = genlmsg_put(msg, NL_AUTO_PORT, NL_AUTO_SEQ, family, 0, NLM_F_DUMP, command, 0) != nullptr;
        if (ok && ifindex > 0) ok = nla_put_u32(msg, NL80211_ATTR_IFINDEX, static_cast<std::uint32_t>(ifindex)) == 0;
        if (ok) ok = nl_socket_modify_cb(sock_, NL_CB_VALID, NL_CB_CUSTOM, handler, context) == 0;
        if (ok) ok = nl_send_auto(sock_, msg) >= 0;
        nlmsg_free(msg);
        return ok && nl_recvmsgs_default(sock_) >= 0;
    }

private:
    nl_sock* sock_ = nullptr;
};

struct InterfaceChoice {
    int ifindex = 0;
    std::optional<std::string> ssid;
};

int onInterface(nl_msg* msg, void* arg) {
    auto* choice = static_cast<InterfaceChoice*>(arg);
    auto* gnlh = static_cast<genlmsghdr*>(nlmsg_data(nlmsg_hdr(msg)));
    nlattr* tb[NL80211_ATTR_MAX + 1] = {};
    if (nla_parse(tb, NL80211_ATTR_MAX, genlmsg_attrdata(gnlh, 0), genlmsg_attrlen(gnlh, 0), nullptr) != 0) {
        return NL_SKIP;
    }
    if (!tb[NL80211_ATTR_IFINDEX] || !tb[NL80211_ATTR_IFTYPE]) return NL_SKIP;
    if (nla_get_u32(tb[NL80211_ATTR_IFTYPE]) != NL80211_IFTYPE_STATION) return NL_SKIP;
    const std::uint32_t index = nla_get_u32(tb[NL80211_ATTR_IFINDEX]);
    if (index == 0 || index > static_cast<std::uint32_t>(INT_MAX)) return NL_SKIP;
    if (choice->ifindex != 0 && static_cast<int>(index) >= choice->ifindex) return NL_SKIP;
    choice->ifindex = static_cast<int>(index);
    choice->ssid.reset();
    if (tb[NL80211_ATTR_SSID]) {
        choice->ssid = WifiInfo::ssidText(static_cast<const std::uint8_t*>(nla_data(tb[NL80211_ATTR_SSID])),
                                          static_cast<std::size_t>(nla_len(tb[NL80211_ATTR_SSID])));
    }
    return NL_SKIP;
}

struct Association {
    std::optional<std::string> ssid;
    std::optional<std::string> bssid;
};

int onScanResult(nl_msg* msg, void* arg) {
    auto* assoc = static_cast<Association*>(arg);
    auto* gnlh = static_cast<genlmsghdr*>(nlmsg_data(nlmsg_hdr(msg)));
    nlattr* tb[NL80211_ATTR_MAX + 1] = {};
    if (nla_parse(tb, NL80211_ATTR_MAX, genlmsg_attrdata(gnlh, 0), genlmsg_attrlen(gnlh, 0), nullptr) != 0 ||
        !tb[NL80211_ATTR_BSS]) {
        return NL_SKIP;
    }
    nlattr* bss[NL80211_BSS_MAX + 1] = {};
    if (nla_parse_nested(bss, NL80211_BSS_MAX, tb[NL80211_ATTR_BSS], nullptr) != 0 || !bss[NL80211_BSS_STATUS]) {
        return NL_SKIP;
    }
    const std::uint32_t status = nla_get_u32(bss[NL80211_BSS_STATUS]);
    if (status != NL80211_BSS_STATUS_ASSOCIATED && status != NL80211_BSS_STATUS_IBSS_JOINED) return NL_SKIP;
    if (bss[NL80211_BSS_BSSID] && nla_len(bss[NL80211_BSS_BSSID]) == 6) {
        std::uint8_t mac[6];
        std::memcpy(mac, nla_data(bss[NL80211_BSS_BSSID]), 6);
        assoc->bssid = WifiInfo::bssidText(mac);
    }
    if (bss[NL80211_BSS_INFORMATION_ELEMENTS]) {
        assoc->ssid = WifiInfo::ssidFromInformationElements(
            static_cast<const std::uint8_t*>(nla_data(bss[NL80211_BSS_INFORMATION_ELEMENTS])),
            static_cast<std::size_t>(nla_len(bss[NL80211_BSS_INFORMATION_ELEMENTS])));
    }
    return NL_SKIP;
}

}  // namespace

WifiNetwork WifiInfo::current() {
    WifiNetwork out;
    GenlSocket sock;
    if (!sock.get()) return out;
    const int family = genl_ctrl_resolve(sock.get(), "nl80211");
    if (family < 0) return out;  // no wireless support in this kernel or namespace

    InterfaceChoice choice;
    if (!sock.dump(family, NL80211_CMD_GET_INTERFACE, 0, onInterface, &choice) || choice.ifindex == 0) return out;

    Association assoc;
    if (sock.dump(family, NL80211_CMD_GET_SCAN, choice.ifindex, onScanResult, &assoc)) {
        out.bssid = assoc.bssid;
        out.ssid = assoc.ssid;
    }
    // The interface's own report of its network name is the more current one.
    if (choice.ssid) out.ssid = choice.ssid;
    return out;
}

}  // namespace zub
