// The kernel's interface calls, recorded and made to fail where a test wants it; whatever is not made to fail reaches
// the kernel. For tests that wrap ioctl and socket.
#pragma once

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include <net/if.h>
#include <net/route.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

struct ioctl_call {
    unsigned long request;
    std::string   name;   // of the interface
    short         flags;  // of a request that carries flags
};

struct route_call {
    bool        added;
    rtentry     record;
    std::string device;  // all of its name that the kernel reads
};

constexpr unsigned long any_request = 0;

struct ioctl_fault {
    unsigned long request;
    int           error;  // 0 lets one call pass
};

inline std::vector<ioctl_call> ioctl_calls;
inline std::vector<route_call> route_calls;   // those among them that are about routes
inline std::deque<ioctl_fault> ioctl_faults;  // each used up by the next call of its request
inline std::vector<int>        socket_types;
inline std::deque<int>         socket_errors;  // 0 lets one call pass

inline void forget_kernel_calls() {
    ioctl_calls.clear();
    route_calls.clear();
    ioctl_faults.clear();
    socket_types.clear();
    socket_errors.clear();
}

// Takes the first of the errors; 0 if there is none.
inline int next_error(std::deque<int> &errors) {
    if (errors.empty()) return 0;
    const int error = errors.front();
    errors.pop_front();
    return error;
}

inline int next_ioctl_error(unsigned long request) {
    for (auto fault = ioctl_faults.begin(); fault != ioctl_faults.end(); ++fault)
        if (fault->request == request || fault->request == any_request) {
            const int error = fault->error;
            ioctl_faults.erase(fault);
            return error;
        }
    return 0;
}

inline void record_ioctl(unsigned long request, const void *argument) {
    ifreq record{};
    memcpy(&record, argument, sizeof(record));
    ioctl_calls.push_back(
        {request, std::string(record.ifr_name, strnlen(record.ifr_name, IFNAMSIZ)), record.ifr_flags});
    if (request != SIOCADDRT && request != SIOCDELRT) return;

    rtentry route;
    memcpy(&route, argument, sizeof(route));
    const char *device = route.rt_dev ? route.rt_dev : "";
    route_calls.push_back({request == SIOCADDRT, route, std::string(device, strnlen(device, IFNAMSIZ - 1))});
}

extern "C" {

int        __real_ioctl(int fd, unsigned long request, ...);
inline int __wrap_ioctl(int fd, unsigned long request, ...) __attribute__((used));
inline int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);

    record_ioctl(request, argument);
    if (const int error = next_ioctl_error(request); error != 0) {
        errno = error;
        return -1;
    }
    return __real_ioctl(fd, request, argument);
}

int        __real_socket(int domain, int type, int protocol);
inline int __wrap_socket(int domain, int type, int protocol) __attribute__((used));
inline int __wrap_socket(int domain, int type, int protocol) {
    socket_types.push_back(type);
    if (const int error = next_error(socket_errors); error != 0) {
        errno = error;
        return -1;
    }
    return __real_socket(domain, type, protocol);
}

}  // extern "C"
