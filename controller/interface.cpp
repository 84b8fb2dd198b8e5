#include "interface.h"

#include <arpa/inet.h>
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <ifaddrs.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace wlcctl {

namespace {

bool ask(int fd, unsigned long what, const std::string &name, ifreq &request) {
    request = {};
    name.copy(request.ifr_name, IFNAMSIZ - 1);
    return ioctl(fd, what, &request) == 0;
}

std::string address_of(const sockaddr *address) {
    char        text[INET6_ADDRSTRLEN] = "";
    const void *bytes                  = nullptr;
    if (address->sa_family == AF_INET) bytes = &reinterpret_cast<const sockaddr_in *>(address)->sin_addr;
    if (address->sa_family == AF_INET6) bytes = &reinterpret_cast<const sockaddr_in6 *>(address)->sin6_addr;
    if (bytes) inet_ntop(address->sa_family, bytes, text, sizeof text);
    return text;
}

}  // namespace

interface_facts read_interface(const std::string &name) {
    interface_facts facts;
    unique_fd       fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq           request;
    if (name.empty() || name.size() >= IFNAMSIZ || !fd || !ask(fd.get(), SIOCGIFFLAGS, name, request)) return facts;
    facts.exists = true;
    facts.is_up  = request.ifr_flags & IFF_UP;
    if (ask(fd.get(), SIOCGIFMTU, name, request)) facts.mtu = static_cast<unsigned>(request.ifr_mtu);

    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) return facts;
    for (const ifaddrs *each = list; each; each = each->ifa_next) {
        if (!each->ifa_addr || name != each->ifa_name) continue;
        std::string text = address_of(each->ifa_addr);
        if (!text.empty()) facts.addresses.push_back(text);
    }
    freeifaddrs(list);
    return facts;
}

std::optional<link_bytes> read_link_bytes(const std::string &name) {
    struct {
        nlmsghdr  head;
        ifinfomsg link;
    } request{};
    unsigned index = name.empty() || name.size() >= IFNAMSIZ ? 0 : if_nametoindex(name.c_str());
    if (index == 0) return std::nullopt;
    request.head           = {sizeof request, RTM_GETLINK, NLM_F_REQUEST, 0, 0};
    request.link.ifi_index = static_cast<int>(index);
    unique_fd              fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    alignas(nlmsghdr) char bytes[16384];
    if (!fd || send(fd.get(), &request, sizeof request, 0) != sizeof request) return std::nullopt;
    ssize_t count = recv(fd.get(), bytes, sizeof bytes, MSG_DONTWAIT);  // the kernel has answered by now
    auto   *head  = reinterpret_cast<nlmsghdr *>(bytes);
    if (count < 0 || !NLMSG_OK(head, static_cast<unsigned>(count)) || head->nlmsg_type != RTM_NEWLINK)
        return std::nullopt;
    int left = static_cast<int>(head->nlmsg_len) - static_cast<int>(NLMSG_SPACE(sizeof(ifinfomsg)));
    for (auto *each = IFLA_RTA(NLMSG_DATA(head)); RTA_OK(each, left); each = RTA_NEXT(each, left)) {
        rtnl_link_stats64 stats{};
        if (each->rta_type != IFLA_STATS64 || RTA_PAYLOAD(each) < offsetof(rtnl_link_stats64, rx_errors)) continue;
        memcpy(&stats, RTA_DATA(each), std::min<size_t>(sizeof stats, RTA_PAYLOAD(each)));
        return link_bytes{static_cast<int>(index), stats.rx_bytes, stats.tx_bytes};
    }
    return std::nullopt;
}

interface_watch::interface_watch(loop &owner, task on_change)
    : fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE)) {
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    if (!fd_ || bind(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) return;
    watch_ = std::make_unique<descriptor_watch>(owner, fd_.get());
    // What changed does not matter: the facts are read anew. A full socket (ENOBUFS) is a change as well, and an error,
    // after which the watch pauses.
    watch_->start(readable, [this, on_change = std::move(on_change)](unsigned) {
        char bytes[8192];
        while (recv(fd_.get(), bytes, sizeof bytes, 0) > 0) {}
        watch_->change(readable);
        on_change();
    });
}

}  // namespace wlcctl
