// IPv4 host routes through a named interface. Nothing in the tunnel's own sequence calls these; they serve a caller
// that routes the tunnel prefix.
#pragma once

#include <cstdint>

#include "tlsc.h"

extern "C" {

struct rtentry;

// Opens a local (AF_UNIX) datagram socket for interface operations; -1 on failure (logged, errno kept).
int32_t tlsc_create_socket(const char *name);

// The same with an AF_INET datagram socket.
int32_t tlsc_create_socket_ipv4(const char *name);

// Adds (add non-zero, SIOCADDRT) or deletes (SIOCDELRT) one route entry. Returns as tlsc_ioctl does.
int32_t tlsc_route_operation_ipv4(int32_t sock, rtentry *route, int32_t add, const char *name);

// Builds the route to addr under the configured prefix length through the interface name and adds or deletes it.
// Returns 1, 0 for bad arguments, or an errno.
int32_t tlsc_inject_v4_host_route(const tlsc_addr *addr, const char *name, int32_t add);

}  // extern "C"
