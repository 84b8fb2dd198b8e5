// The TUN interface: creation on the clone device, MTU, flags, deletion, and its state as the controller is told.
// Tunnel thread only, but for tlsc_tun_delete, which the process's clean-up calls as well.
#pragma once

#include <cstdint>

#include "tlsc.h"

extern "C" {

struct ifreq;

// Kept by the failing ioctl or socket call of this module and of tlsc_route_utils, and returned as its result.
extern int32_t tlsc_ioctl_errno;        // of the last failed ioctl
extern int32_t tlsc_socket_errno;       // of the last failed socket creation
extern bool    tlsc_new_socket_needed;  // an ioctl failed with EBADF: the control socket must be made anew

// Creates the configured interface for a session whose TUN descriptor is open on the clone device, in at most five
// attempts one second apart, and sets its MTU. Returns 1, 0 on failure, or the MTU setter's errno.
int32_t tlsc_create_tun(tlsc_session *session);

// Attaches fd to the interface name (TUNSETIFF, see the kernel's tuntap document). Returns 1 or 0; a busy name is
// deleted, so that the next attempt finds it free.
int32_t tlsc_tun_alloc(const char *name, int32_t fd);

// Sets the MTU in bytes (SIOCSIFMTU), at most 1500. Returns 1, 0 for bad arguments, or an errno.
int32_t tlsc_set_tun_mtu(const char *name, int32_t mtu);

// Sets (up non-zero) or clears IFF_UP. Returns 1 or an errno.
int32_t tlsc_tun_up(const char *name, int32_t up);

// True when the interface behind the session's descriptor was deleted from outside: it cannot come back on it.
bool tlsc_tun_is_gone(const tlsc_session *session);

// Brings the session's interface up (1) or down (0) and reports the change to the controller. Returns 1 also when
// nothing had to change, 0 for a null session or name, otherwise the last ioctl errno.
int32_t tlsc_chg_tun_state(tlsc_session *session, int32_t state);

// Reports the interface down with cause (tlsc_tun_down_cause), closes the TUN descriptor and forgets the interface.
void tlsc_tun_delete(tlsc_session *session, int32_t cause);

// Opens the AF_INET datagram socket for interface ioctls; -1 on failure, logged with the name.
int32_t tlsc_socket_creation(const char *name);

// Assigns an IPv4 address to the interface (SIOCSIFADDR). Returns 1, 0, or an errno. Not part of the start-up.
int32_t tlsc_add_tun_addr(const char *name, const tlsc_addr *addr, uint32_t prefix_len);

// The shared outcome of this module's ioctls: 1 on success, -1 for EFAULT, -1 and tlsc_new_socket_needed for EBADF,
// the errno itself for anything else. argument is the request's record.
int32_t tlsc_ioctl(int32_t fd, unsigned long request, void *argument);

}  // extern "C"
