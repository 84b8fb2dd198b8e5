// Contents: 1 ioctls and control sockets  2 attaching, MTU, flags, address  3 deletion and state  4 creation
#include "tlsc_tun_intf.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tlsc_config.h"
#include "tlsc_debug.h"
#include "tlsc_turn.h"
#include "tlsc_utils.h"

#include "tlsc_engine.h"    // epoll registry
#include "tlsc_platform.h"  // state reports, counters

// ---- 1 ioctls and control sockets -----------------------------------------------------------------------------------

int32_t tlsc_ioctl_errno;
int32_t tlsc_socket_errno;
bool    tlsc_new_socket_needed;

namespace {

// A request for the interface; names are cut to the kernel's 15 characters.
ifreq make_request(const char *name) {
    ifreq request{};
    tlsc_copy_text(request.ifr_name, sizeof(request.ifr_name), name);
    return request;
}

// Tries whether a new control socket can be had, if an ioctl found the last one bad. Returns false when it cannot.
bool renew_control_socket(const char *name) {
    if (!tlsc_new_socket_needed) return true;

    int32_t sock = tlsc_socket_creation(name);
    if (sock < 0) return false;
    close(sock);  // No second pass uses it.
    tlsc_new_socket_needed = false;
    return true;
}

}  // namespace

// By contract: an EPERM (1) reads as success, since any other errno is the result itself.
int32_t tlsc_ioctl(int32_t fd, unsigned long request, void *argument) {
    if (!argument) {
        TLSC_ERROR("Null ptr received for argument");
        tlsc_ioctl_errno = EFAULT;
        return -1;
    }
    if (ioctl(fd, request, argument) >= 0) return 1;

    tlsc_ioctl_errno = errno;
    if (tlsc_ioctl_errno == EFAULT) return -1;
    if (tlsc_ioctl_errno == EBADF) {
        tlsc_new_socket_needed = true;
        return -1;
    }
    return tlsc_ioctl_errno;
}

int32_t tlsc_socket_creation(const char *name) {
    if (!name) {
        TLSC_ERROR("Null ptr received for name");
        tlsc_socket_errno = EINVAL;
        return -1;
    }

    int32_t sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock < 0) {
        tlsc_socket_errno = errno;
        TLSC_ERROR("Could not open socket for interface: %s", name);
        return -1;
    }
    return sock;
}

// ---- 2 attaching, MTU, flags, address -------------------------------------------------------------------------------

namespace {

constexpr int32_t tun_mtu     = 1406;  // bytes
constexpr int32_t max_tun_mtu = 1500;  // bytes

constexpr size_t command_size   = 100;
constexpr char   netmask_text[] = "255.255.255.0";

// True for a name that means nothing to the shell: the kernel takes names that would.
bool is_plain_name(const char *name) {
    constexpr char plain[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
    return name[0] != '\0' && name[0] != '-' && name[strspn(name, plain)] == '\0';
}

// Deletes the interface that holds the name, so that the next attempt finds it free.
void delete_stale_interface(const char *name) {
    if (!is_plain_name(name)) return;

    char command[command_size];
    (void)snprintf(command, sizeof(command), "ip link delete %s  type tun", name);
    [[maybe_unused]] int status = system(command);  // The next attempt shows whether it helped.
}

// One pass of a flags request on a control socket of its own. Returns true, or false with the errno to hand on.
// By contract: the texts name getting the flags for the write as well.
bool request_flags(const char *name, unsigned long code, ifreq *request, int32_t *error) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_tun_up"};

    int32_t sock = tlsc_socket_creation(name);
    if (sock < 0) {
        *error = tlsc_socket_errno;
        return false;
    }
    int32_t result = tlsc_ioctl(sock, code, request);
    close(sock);

    if (result == -1) {
        TLSC_WARNING("Failed to get flags for interface %s due to %s, Retrying to get flags...", name,
                     strerror(tlsc_ioctl_errno));
        if (!renew_control_socket(name)) {
            *error = tlsc_socket_errno;
            return false;
        }
    }
    if (result != 1) {
        TLSC_ERROR("Failed to get flags for interface  %s due to error[%d]", name, tlsc_ioctl_errno);
        *error = tlsc_ioctl_errno;
        return false;
    }
    return true;
}

// The request that assigns the IPv4 address of addr.
ifreq make_addr_request(const char *name, const tlsc_addr *addr) {
    sockaddr_in ipv4{};
    ipv4.sin_family = AF_INET;
    memcpy(&ipv4.sin_addr, addr->ipv4, sizeof(ipv4.sin_addr));

    ifreq request = make_request(name);
    static_assert(sizeof(request.ifr_addr) == sizeof(ipv4));
    memcpy(&request.ifr_addr, &ipv4, sizeof(ipv4));
    return request;
}

int32_t assign_ipv4(int32_t sock, const char *name, const tlsc_addr *addr) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_add_tun_addr"};

    uint32_t stored;  // the address as its four bytes stand in memory
    memcpy(&stored, addr->ipv4, sizeof(stored));
    ifreq request = make_addr_request(name, addr);
    if (ioctl(sock, SIOCSIFADDR, &request) < 0) {
        tlsc_ioctl_errno = errno;
        TLSC_ERROR("Failed to set intf addr(%xu)", stored);
        return 0;
    }
    // By contract: no netmask is set; the one that is printed is fixed text.
    TLSC_INFO("Successfully changed addr and netmask for Interface(%s). Addr = %xu, Netmask: %s", name, stored,
              netmask_text);
    return 1;
}

// By contract: a kind of address that is not assigned counts as success.
int32_t assign_addr(int32_t sock, const char *name, const tlsc_addr *addr, uint32_t prefix_len) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_add_tun_addr"};

    if (addr->kind == ADDR_IPV6) TLSC_ERROR("IPv6 address assignment to interface not supported yet.");
    else if (addr->kind != ADDR_IPV4) TLSC_ERROR("Invalid addr-type(%d) while setting interface IP", addr->kind);
    if (addr->kind != ADDR_IPV4) return 1;
    if (prefix_len > 32) {
        TLSC_ERROR("Invalid Prefix length received: %d, which is greater than 32", static_cast<int>(prefix_len));
        return 0;
    }
    return assign_ipv4(sock, name, addr);
}

}  // namespace

int32_t tlsc_tun_alloc(const char *name, int32_t fd) {
    if (!name) {
        TLSC_ERROR("Invalid device name for tun device creation");
        return 0;
    }
    if (fd < 1) {
        TLSC_ERROR("Invalid tun-fd(%d) received", fd);
        return 0;
    }

    ifreq request     = make_request(name);
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    TLSC_DEBUG("Creating TUN-INTERFACE with fd = %d", fd);

    if (ioctl(fd, TUNSETIFF, &request) < 0) {
        tlsc_ioctl_errno = errno;
        if (tlsc_ioctl_errno == EBUSY) {
            delete_stale_interface(name);
            TLSC_WARNING("IOCTL error[%d] in setting tun interface %s, deleting the existing tun interface",
                         tlsc_ioctl_errno, name);
        } else {
            TLSC_ERROR("IOCTL error[%d] in setting tun interface %s", tlsc_ioctl_errno, name);
        }
        return 0;
    }
    TLSC_INFO("Successfully set the fd(%d) for tun-interface %s", fd, name);
    return 1;
}

// By contract: one pass. A failure that announces a retry is not tried again.
int32_t tlsc_set_tun_mtu(const char *name, int32_t mtu) {
    if (!name || mtu > max_tun_mtu) {
        TLSC_ERROR("Either dev_name ptr is NULL, or mtu size is greater than 1500. MTU received = %d", mtu);
        return 0;
    }

    int32_t sock = tlsc_socket_creation(name);
    if (sock < 0) return tlsc_socket_errno;

    ifreq request   = make_request(name);
    request.ifr_mtu = mtu;
    int32_t result  = tlsc_ioctl(sock, SIOCSIFMTU, &request);
    close(sock);

    if (result == -1) {
        // By contract: the error text stands in the name's place and the name in the error text's.
        TLSC_WARNING("Failed to set mtu size for interface %s due to %s, Retrying to set mtu...",
                     strerror(tlsc_ioctl_errno), name);
        if (!renew_control_socket(name)) return tlsc_socket_errno;
    }
    if (result != 1) {
        TLSC_ERROR("Failed to set mtu size for interface  %s due to erro[%d]", name, tlsc_ioctl_errno);
        return tlsc_ioctl_errno;
    }
    return 1;
}

int32_t tlsc_tun_up(const char *name, int32_t up) {
    if (!name) {
        TLSC_ERROR("Null ptr received for dev_name");
        return 0;
    }

    ifreq   request = make_request(name);
    int32_t error   = 0;
    if (!request_flags(name, SIOCGIFFLAGS, &request, &error)) return error;

    unsigned flags    = static_cast<unsigned short>(request.ifr_flags);
    flags             = up ? flags | IFF_UP : flags & ~static_cast<unsigned>(IFF_UP);
    request.ifr_flags = static_cast<short>(flags);
    if (!request_flags(name, SIOCSIFFLAGS, &request, &error)) return error;

    TLSC_DEBUG("Interface %s is successfully %s", name, up ? "up" : "down");
    return 1;
}

int32_t tlsc_add_tun_addr(const char *name, const tlsc_addr *addr, uint32_t prefix_len) {
    if (!name || !addr) {
        TLSC_ERROR("Null ptr received for dev_name/addr");
        return 0;
    }
    if (prefix_len == 0) TLSC_WARNING("Prefix length is zero");

    int32_t sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock < 0) {
        tlsc_socket_errno = errno;
        TLSC_ERROR("Error creating socket for dev %s for ip addr assignment", name);
        return tlsc_socket_errno;
    }

    const int32_t result = assign_addr(sock, name, addr, prefix_len);
    close(sock);
    return result;
}

// ---- 3 deletion and state -------------------------------------------------------------------------------------------

void tlsc_tun_delete(tlsc_session *session, int32_t cause) {
    if (!session) {
        TLSC_ERROR("Null ptr received for sess");
        return;
    }

    (void)tlsc_write_tun_intf_state(0, cause);  // A report that fails is not repeated.

    if (session->tun_fd > 0) {
        if (!tlsc_delete_fd_from_epoll(tlsc_epoll_fd, session->tun_fd))
            TLSC_ERROR("Could not delete the tun-fd(%d) from epoll-list", session->tun_fd);
        close(session->tun_fd);  // The interface is not persistent: it goes with its descriptor.
        tlsc_forget_fd_events(session->tun_fd);
        tlsc_count(&tlsc_stats::tun_freed);
        session->tun_fd = -1;
    }
    session->if_name   = nullptr;
    session->tun_state = 0;
}

bool tlsc_tun_is_gone(const tlsc_session *session) {
    ifreq unused{};
    return session && session->tun_fd > 0 && ioctl(session->tun_fd, TUNGETIFF, &unused) < 0 && errno == EBADFD;
}

int32_t tlsc_chg_tun_state(tlsc_session *session, int32_t state) {
    if (!session || !session->if_name) {
        TLSC_ERROR("Session or ifname is Null");
        return 0;
    }
    if (session->tun_state == state) {
        TLSC_DEBUG("Tun-interface is already in same state as requested(%d)", state);
        return 1;
    }

    if (tlsc_tun_up(session->if_name, state) != 1) {
        TLSC_ERROR("Could not change the tun-interface(%s) state", session->if_name);
        session->if_name = nullptr;  // The interface cannot be used until it is created again.
        return tlsc_ioctl_errno;
    }

    (void)tlsc_write_tun_intf_state(state ? 1 : 0, TLSC_DOWN_NO_ERROR);  // A report that fails is not repeated.
    if (state) TLSC_INFO("TUN-INTF is UP!!");
    else TLSC_INFO("TUN-INTF is DOWN!!");
    session->tun_state = state ? 1 : 0;
    return 1;
}

// ---- 4 creation -----------------------------------------------------------------------------------------------------

namespace {

constexpr int32_t      max_create_attempts = 5;
constexpr unsigned int retry_pause_seconds = 1;

// Opens the clone device for reading and writing; negative on failure, with errno.
int32_t open_clone_device() {
    int32_t fd = open("/dev/net/tun", O_RDWR);
    if (fd >= 0) (void)fcntl(fd, F_SETFD, FD_CLOEXEC);  // It cannot fail on a descriptor just opened.
    return fd;
}

// Attaches the session's descriptor to the name, each time it fails a fresh one after a pause; the session names the
// interface only when there is one. Returns the number of the last attempt, one more when all of them failed.
int32_t attach_session(tlsc_session *session, const char *name) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_create_tun"};

    int32_t attempt = 0;
    while (attempt++ < max_create_attempts) {
        if (tlsc_tun_alloc(name, session->tun_fd)) {
            session->if_name = name;
            break;
        }
        TLSC_WARNING("Failed to create interface for session %p, Retrying to create interface...",
                     static_cast<void *>(session));
        tlsc_tun_delete(session, TLSC_DOWN_NO_ERROR);
        tlsc_sleep_out_of_turn(retry_pause_seconds);
        session->tun_fd = open_clone_device();
        if (session->tun_fd < 0) TLSC_ERROR("Error cloning tun interface, errno:%d", errno);
    }
    return attempt;
}

}  // namespace

int32_t tlsc_create_tun(tlsc_session *session) {
    if (!session) {
        TLSC_ERROR("Session is Null");
        return 0;
    }

    const char *name = tlsc_get_config()->tun_interface_name;
    session->if_name = name;
    TLSC_DEBUG("Creating interface %s for session %p", name, static_cast<void *>(session));

    // By contract: an interface obtained on the fifth attempt still counts as a failure, and stays.
    if (attach_session(session, name) >= max_create_attempts) {
        TLSC_ERROR("Retry count(%d) over. Failed to create interface for session %p", max_create_attempts,
                   static_cast<void *>(session));
        return 0;
    }

    int32_t result = tlsc_set_tun_mtu(name, tun_mtu);
    if (result != 1) {
        TLSC_ERROR("Failed to set the MTU(%d) for the interface %s", tun_mtu, name);
        return result;
    }
    TLSC_INFO("Successfully set the MTU(%d) for the interface %s", tun_mtu, name);
    tlsc_count(&tlsc_stats::tun_alloc);
    return 1;
}
