#include "tlsc_route_utils.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <net/if.h>
#include <net/route.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tlsc_config.h"
#include "tlsc_debug.h"
#include "tlsc_utils.h"

#include "tlsc_tun_intf.h"  // ioctl wrapper and error slots

namespace {

// The mask in network byte order. A length of 0 has no bits; so has one that no IPv4 prefix can have.
in_addr_t prefix_mask(uint8_t length) {
    if (length == 0 || length > 32) return 0;
    return htonl(0xFFFFFFFFu << (32 - length));
}

// A socket address of a route entry; addr in network byte order.
sockaddr route_addr(in_addr_t addr) {
    sockaddr_in ipv4{};
    ipv4.sin_family      = AF_INET;
    ipv4.sin_addr.s_addr = addr;

    sockaddr generic;
    static_assert(sizeof(generic) == sizeof(ipv4));
    memcpy(&generic, &ipv4, sizeof(generic));
    return generic;
}

// The entry for addr under the prefix length in bits; device must outlive it.
rtentry make_route(const tlsc_addr *addr, uint8_t prefix_length, char *device) {
    in_addr_t destination;
    memcpy(&destination, addr->ipv4, sizeof(destination));

    rtentry route{};
    route.rt_dst     = route_addr(destination);
    route.rt_genmask = route_addr(prefix_mask(prefix_length));
    route.rt_flags   = RTF_UP;
    route.rt_metric  = 0;
    route.rt_dev     = device;
    return route;
}

}  // namespace

int32_t tlsc_create_socket(const char *name) {
    if (!name) {
        TLSC_ERROR("Null ptr received for name");
        tlsc_socket_errno = EINVAL;
        return -1;
    }

    int32_t sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock < 0) {
        tlsc_socket_errno = errno;
        TLSC_ERROR("Could not open socket for interface: %s", name);
        return -1;
    }
    return sock;
}

int32_t tlsc_create_socket_ipv4(const char *name) {
    if (!name) {
        TLSC_ERROR("Null ptr received for name");
        tlsc_socket_errno = EINVAL;
        return -1;
    }

    int32_t sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock < 0) {
        tlsc_socket_errno = errno;
        TLSC_ERROR("Could not open socket for add/remove of route to interface = %s", name);
        return -1;
    }
    return sock;
}

int32_t tlsc_route_operation_ipv4(int32_t sock, rtentry *route, int32_t add, const char *name) {
    if (!route || !name) {
        TLSC_ERROR("Null ptr received for route/name");
        return 0;
    }

    if (add) TLSC_INFO("Adding route to interface %s", name);
    else TLSC_INFO("Deleting route for interface %s", name);
    return tlsc_ioctl(sock, add ? SIOCADDRT : SIOCDELRT, route);
}

// By contract: one pass. A failure that announces a retry is not tried again.
int32_t tlsc_inject_v4_host_route(const tlsc_addr *addr, const char *name, int32_t add) {
    if (!addr || !name || addr->kind != ADDR_IPV4) {
        TLSC_ERROR("Null ptr received for addr/ifname, or addr-type is not IPv4");
        return 0;
    }

    int32_t sock = tlsc_create_socket_ipv4(name);
    if (sock < 0) return tlsc_socket_errno;

    char device[IFNAMSIZ];  // The kernel reads 15 characters, however short the name is.
    tlsc_copy_text(device, sizeof(device), name);
    rtentry route  = make_route(addr, tlsc_get_config()->prefix_length, device);
    int32_t result = tlsc_route_operation_ipv4(sock, &route, add, name);
    close(sock);

    if (result == -1) {
        TLSC_WARNING("Route operation failed due to error[%d], Retrying to do the route operation...",
                     tlsc_ioctl_errno);
        errno = tlsc_ioctl_errno;
        perror("Route operation failed :");
        if (tlsc_new_socket_needed) {
            sock = tlsc_create_socket_ipv4(name);
            if (sock < 0) return tlsc_socket_errno;
            close(sock);
            tlsc_new_socket_needed = false;
        }
    }
    if (result != 1) {
        TLSC_ERROR("Route operation failed  %s due to error[%d]", name, tlsc_ioctl_errno);
        return tlsc_ioctl_errno;
    }
    return 1;
}
