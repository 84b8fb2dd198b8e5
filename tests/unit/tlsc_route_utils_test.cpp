// Host routes in the kernel's own table, in a network namespace of its own.

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <net/route.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "capture.h"
#include "kernel_calls.h"
#include "tlsc_config.h"
#include "tlsc_route_utils.h"
#include "tlsc_tun_intf.h"
#include "tlsc_utils.h"

namespace {

struct kernel_route {
    std::string device;
    in_addr_t   destination;
    in_addr_t   gateway;
    unsigned    flags;
    int         metric;
    in_addr_t   mask;
};

std::vector<kernel_route> kernel_routes() {
    std::vector<kernel_route> found;
    FILE                     *table = fopen("/proc/self/net/route", "re");
    char                      line[256];
    while (table && fgets(line, sizeof(line), table)) {
        char     device[32];
        unsigned destination, gateway, flags, references, uses, mask;
        int      metric;
        if (sscanf(line, "%31s %x %x %x %u %u %d %x", device, &destination, &gateway, &flags, &references, &uses,
                   &metric, &mask) == 8)
            found.push_back({device, destination, gateway, flags, metric, mask});
    }
    if (table) fclose(table);
    return found;
}

std::string dotted(const sockaddr &generic) {
    sockaddr_in ipv4{};
    memcpy(&ipv4, &generic, sizeof(ipv4));
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &ipv4.sin_addr, text, sizeof(text));
}

size_t open_descriptors() {
    size_t count = 0;
    for (int fd = 0; fd < 1024; ++fd) count += fcntl(fd, F_GETFD) != -1;
    return count;
}

tlsc_addr address(const char *text) {
    tlsc_addr record{};
    EXPECT_EQ(tlsc_parse_addr(text, &record), 1);
    return record;
}

// Runs on the loopback interface, which is up in the namespace.
class tlsc_route_utils : public ::testing::Test {
protected:
    void SetUp() override {
        forget_kernel_calls();
        tlsc_ioctl_errno = tlsc_socket_errno = 0;
        tlsc_new_socket_needed               = false;
        tlsc_get_config()->prefix_length     = 24;
    }

    static void expect_lines(const log_capture &log, const std::vector<std::vector<std::string>> &expected) {
        const auto lines = log.lines();
        ASSERT_EQ(lines.size(), expected.size());
        for (size_t i = 0; i < lines.size(); ++i)
            EXPECT_TRUE(is_log_line(lines[i], expected[i][0], "tlsc_route_utils.c", expected[i][1], expected[i][2]))
                << lines[i];
    }

    tlsc_addr prefix = address("198.51.100.0");
};

}  // namespace

TEST_F(tlsc_route_utils, route_to_the_prefix_is_added_and_deleted) {
    log_capture log;
    ASSERT_EQ(tlsc_inject_v4_host_route(&prefix, "lo", 1), 1);
    const auto after_add = kernel_routes();
    ASSERT_EQ(after_add.size(), 1u);
    EXPECT_EQ(after_add[0].device, "lo");
    EXPECT_EQ(after_add[0].destination, inet_addr("198.51.100.0"));
    EXPECT_EQ(after_add[0].mask, inet_addr("255.255.255.0"));
    EXPECT_EQ(after_add[0].gateway, 0u);
    EXPECT_EQ(after_add[0].flags, static_cast<unsigned>(RTF_UP));
    EXPECT_EQ(after_add[0].metric, 0);

    ASSERT_EQ(tlsc_inject_v4_host_route(&prefix, "lo", 0), 1);
    EXPECT_TRUE(kernel_routes().empty());
    expect_lines(log, {{"INFO", "tlsc_route_operation_ipv4", "Adding route to interface lo"},
                       {"INFO", "tlsc_route_operation_ipv4", "Deleting route for interface lo"}});
}

TEST_F(tlsc_route_utils, mask_follows_the_configured_prefix_length) {
    const std::vector<std::pair<uint8_t, const char *>> table{
        {0, "0.0.0.0"},          {1, "128.0.0.0"},        {8, "255.0.0.0"}, {24, "255.255.255.0"},
        {31, "255.255.255.254"}, {32, "255.255.255.255"}, {33, "0.0.0.0"},  {255, "0.0.0.0"}};
    for (const auto &[length, mask] : table) {
        route_calls.clear();
        ioctl_faults                     = {{any_request, EPERM}};  // reads as success; the kernel is not asked
        tlsc_get_config()->prefix_length = length;
        log_capture log;
        EXPECT_EQ(tlsc_inject_v4_host_route(&prefix, "lo", 1), 1);
        ASSERT_EQ(route_calls.size(), 1u);
        EXPECT_EQ(dotted(route_calls[0].record.rt_genmask), mask) << static_cast<int>(length);
    }
}

TEST_F(tlsc_route_utils, entry_has_no_gateway_no_metric_and_only_the_up_flag) {
    ioctl_faults = {{any_request, EPERM}};
    log_capture log;
    ASSERT_EQ(tlsc_inject_v4_host_route(&prefix, "lo", 1), 1);
    ASSERT_EQ(route_calls.size(), 1u);
    EXPECT_EQ(dotted(route_calls[0].record.rt_dst), "198.51.100.0");
    EXPECT_EQ(route_calls[0].record.rt_dst.sa_family, AF_INET);
    EXPECT_EQ(route_calls[0].record.rt_genmask.sa_family, AF_INET);
    EXPECT_EQ(route_calls[0].record.rt_gateway.sa_family, 0);
    EXPECT_EQ(route_calls[0].record.rt_flags, RTF_UP);
    EXPECT_EQ(route_calls[0].record.rt_metric, 0);
    EXPECT_EQ(route_calls[0].device, "lo");
    EXPECT_TRUE(route_calls[0].added);
}

TEST_F(tlsc_route_utils, name_of_more_than_15_characters_is_cut_to_15) {
    ioctl_faults = {{any_request, EPERM}};
    log_capture log;
    ASSERT_EQ(tlsc_inject_v4_host_route(&prefix, "abcdefghijklmnopqrst", 1), 1);
    EXPECT_EQ(route_calls[0].device, "abcdefghijklmno");
}

TEST_F(tlsc_route_utils, anything_but_an_ipv4_record_and_a_name_is_refused) {
    const tlsc_addr ipv6 = address("2001:db8::1");
    const tlsc_addr none{};
    log_capture     log;
    EXPECT_EQ(tlsc_inject_v4_host_route(nullptr, "lo", 1), 0);
    EXPECT_EQ(tlsc_inject_v4_host_route(&prefix, nullptr, 1), 0);
    EXPECT_EQ(tlsc_inject_v4_host_route(&ipv6, "lo", 1), 0);
    EXPECT_EQ(tlsc_inject_v4_host_route(&none, "lo", 1), 0);
    EXPECT_EQ(socket_types.size(), 0u);
    EXPECT_EQ(log.count("ERROR", "tlsc_route_utils.c", "tlsc_inject_v4_host_route",
                        "Null ptr received for addr/ifname, or addr-type is not IPv4"),
              4u);
}

TEST_F(tlsc_route_utils, route_that_the_kernel_refuses_gives_its_errno) {
    log_capture log;
    EXPECT_EQ(tlsc_inject_v4_host_route(&prefix, "absent0", 1), ENODEV);
    EXPECT_EQ(tlsc_inject_v4_host_route(&prefix, "lo", 0), ESRCH);
    expect_lines(log, {{"INFO", "tlsc_route_operation_ipv4", "Adding route to interface absent0"},
                       {"ERROR", "tlsc_inject_v4_host_route", "Route operation failed  absent0 due to error[19]"},
                       {"INFO", "tlsc_route_operation_ipv4", "Deleting route for interface lo"},
                       {"ERROR", "tlsc_inject_v4_host_route", "Route operation failed  lo due to error[3]"}});
}

TEST_F(tlsc_route_utils, failure_by_efault_announces_a_retry_that_does_not_come) {
    ioctl_faults = {{any_request, EFAULT}};
    log_capture log;
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(tlsc_inject_v4_host_route(&prefix, "lo", 1), EFAULT);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Route operation failed :: Bad address\n");
    EXPECT_EQ(route_calls.size(), 1u);
    EXPECT_EQ(socket_types.size(), 1u);
    expect_lines(log, {{"INFO", "tlsc_route_operation_ipv4", "Adding route to interface lo"},
                       {"WARNING", "tlsc_inject_v4_host_route",
                        "Route operation failed due to error[14], Retrying to do the route operation..."},
                       {"ERROR", "tlsc_inject_v4_host_route", "Route operation failed  lo due to error[14]"}});
}

TEST_F(tlsc_route_utils, printed_error_is_the_requests_own_when_the_log_cannot_be_written_either) {
    ioctl_faults = {{any_request, EFAULT}};
    log_capture log;
    const int   shown = dup(STDOUT_FILENO);
    const int   full  = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(dup2(full, STDOUT_FILENO), STDOUT_FILENO);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(tlsc_inject_v4_host_route(&prefix, "lo", 1), EFAULT);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Route operation failed :: Bad address\n");
    EXPECT_EQ(dup2(shown, STDOUT_FILENO), STDOUT_FILENO);
    close(shown);
    close(full);
}

TEST_F(tlsc_route_utils, failure_by_ebadf_makes_a_new_socket_and_clears_the_need) {
    ioctl_faults = {{any_request, EBADF}};
    log_capture log;
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(tlsc_inject_v4_host_route(&prefix, "lo", 1), EBADF);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Route operation failed :: Bad file descriptor\n");
    EXPECT_EQ(route_calls.size(), 1u);
    EXPECT_EQ(socket_types.size(), 2u);
    EXPECT_FALSE(tlsc_new_socket_needed);
}

TEST_F(tlsc_route_utils, missing_socket_gives_its_errno) {
    log_capture log;
    socket_errors = {EMFILE};
    EXPECT_EQ(tlsc_inject_v4_host_route(&prefix, "lo", 1), EMFILE);
    EXPECT_TRUE(route_calls.empty());
    expect_lines(
        log, {{"ERROR", "tlsc_create_socket_ipv4", "Could not open socket for add/remove of route to interface = lo"}});

    log.clear();
    ioctl_faults  = {{any_request, EBADF}};
    socket_errors = {0, ENFILE};
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(tlsc_inject_v4_host_route(&prefix, "lo", 1), ENFILE);
    ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(tlsc_new_socket_needed);
    EXPECT_FALSE(log.contains("Route operation failed  lo"));
}

TEST_F(tlsc_route_utils, failure_by_eperm_reads_as_success) {
    ioctl_faults = {{any_request, EPERM}};
    log_capture log;
    EXPECT_EQ(tlsc_inject_v4_host_route(&prefix, "lo", 1), 1);
    expect_lines(log, {{"INFO", "tlsc_route_operation_ipv4", "Adding route to interface lo"}});
}

TEST_F(tlsc_route_utils, every_path_closes_its_sockets) {
    const size_t before = open_descriptors();
    {
        log_capture log;
        ::testing::internal::CaptureStderr();
        for (int error : {EFAULT, EBADF, EINVAL, EPERM}) {
            ioctl_faults = {{any_request, error}};
            tlsc_inject_v4_host_route(&prefix, "lo", 1);
        }
        ioctl_faults  = {{any_request, EBADF}};
        socket_errors = {0, ENFILE};
        tlsc_inject_v4_host_route(&prefix, "lo", 1);
        ::testing::internal::GetCapturedStderr();
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(tlsc_route_utils, operation_results_are_1_minus_1_or_the_errno) {
    struct {
        int     error;
        int32_t result;
    } const table[] = {{EFAULT, -1}, {EBADF, -1}, {EEXIST, EEXIST}, {ENETUNREACH, ENETUNREACH}, {EPERM, 1}};
    rtentry     route{};
    log_capture log;
    for (const auto &entry : table) {
        ioctl_faults           = {{any_request, entry.error}};
        tlsc_new_socket_needed = false;
        EXPECT_EQ(tlsc_route_operation_ipv4(3, &route, 1, "lo"), entry.result);
        EXPECT_EQ(tlsc_ioctl_errno, entry.error);
        EXPECT_EQ(tlsc_new_socket_needed, entry.error == EBADF);
    }
}

TEST_F(tlsc_route_utils, operation_on_a_null_route_or_name_is_refused) {
    log_capture log;
    rtentry     route{};
    EXPECT_EQ(tlsc_route_operation_ipv4(3, nullptr, 1, "lo"), 0);
    EXPECT_EQ(tlsc_route_operation_ipv4(3, &route, 1, nullptr), 0);
    EXPECT_TRUE(route_calls.empty());
    expect_lines(log, {{"ERROR", "tlsc_route_operation_ipv4", "Null ptr received for route/name"},
                       {"ERROR", "tlsc_route_operation_ipv4", "Null ptr received for route/name"}});
}

TEST_F(tlsc_route_utils, interface_sockets_are_local_or_ipv4_datagram_sockets) {
    const struct {
        int32_t (*create)(const char *);
        int domain;
    } table[] = {{tlsc_create_socket, AF_UNIX}, {tlsc_create_socket_ipv4, AF_INET}};
    for (const auto &entry : table) {
        const int sock = entry.create("lo");
        ASSERT_GT(sock, 0);
        int       domain = 0, type = 0;
        socklen_t size = sizeof(int);
        ASSERT_EQ(getsockopt(sock, SOL_SOCKET, SO_DOMAIN, &domain, &size), 0);
        ASSERT_EQ(getsockopt(sock, SOL_SOCKET, SO_TYPE, &type, &size), 0);
        EXPECT_EQ(domain, entry.domain);
        EXPECT_EQ(type, SOCK_DGRAM);
        EXPECT_EQ(fcntl(sock, F_GETFD), FD_CLOEXEC);
        close(sock);
    }
}

TEST_F(tlsc_route_utils, interface_socket_that_cannot_be_made_keeps_the_errno) {
    log_capture log;
    socket_errors = {EMFILE, ENFILE, EMFILE};
    EXPECT_EQ(tlsc_create_socket("lo"), -1);
    EXPECT_EQ(tlsc_socket_errno, EMFILE);
    EXPECT_EQ(tlsc_create_socket_ipv4("lo"), -1);
    EXPECT_EQ(tlsc_socket_errno, ENFILE);
    EXPECT_EQ(tlsc_create_socket(nullptr), -1);
    EXPECT_EQ(tlsc_create_socket_ipv4(nullptr), -1);
    expect_lines(
        log, {{"ERROR", "tlsc_create_socket", "Could not open socket for interface: lo"},
              {"ERROR", "tlsc_create_socket_ipv4", "Could not open socket for add/remove of route to interface = lo"},
              {"ERROR", "tlsc_create_socket", "Null ptr received for name"},
              {"ERROR", "tlsc_create_socket_ipv4", "Null ptr received for name"}});
}
