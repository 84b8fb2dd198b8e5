#include "gateway_harness.h"

// The gateway with an interface of its own. Needs root and /dev/net/tun.

#include <linux/if_tun.h>
#include <net/if.h>
#include <sys/ioctl.h>

using namespace gw;
using namespace gwtest;

namespace {

bool can_create_tun() { return geteuid() == 0 && access("/dev/net/tun", R_OK | W_OK) == 0; }

const std::vector<std::string> tun_options = {"--tun", "gwtest0", "--tun-addr", "10.99.0.1/24"};

sockaddr_in udp_address(const std::string &text, uint16_t port) {
    sockaddr_in address{};
    address.sin_family      = AF_INET;
    address.sin_port        = htons(port);
    address.sin_addr.s_addr = htonl(*parse_ipv4(text));
    return address;
}

common::unique_fd udp_socket(const std::string &address, uint16_t port) {
    common::unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in       local = udp_address(address, port);
    EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&local), sizeof local), 0) << strerror(errno);
    timeval limit{5, 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    return fd;
}

// Packets that the kernel keeps for the reader of an interface.
int queue_length(const char *interface) {
    common::unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq             request{};
    strcpy(request.ifr_name, interface);
    EXPECT_EQ(ioctl(fd.get(), SIOCGIFTXQLEN, &request), 0) << strerror(errno);
    return request.ifr_qlen;
}

}  // namespace

// A longer queue at the gateway's end than at the client's starves the way up when both ways are busy.
TEST(gateway_tun, queue_is_as_long_as_that_of_a_client_interface) {
    if (!can_create_tun()) GTEST_SKIP() << "needs root and /dev/net/tun";
    common::unique_fd client(open("/dev/net/tun", O_RDWR | O_CLOEXEC));
    ifreq             request{};
    strcpy(request.ifr_name, "gwclient0");
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    ASSERT_EQ(ioctl(client.get(), TUNSETIFF, &request), 0) << strerror(errno);

    test_gateway gateway(tun_options);
    EXPECT_EQ(queue_length("gwtest0"), queue_length("gwclient0"));
}

TEST(gateway_tun, a_packet_of_a_client_reaches_the_site_and_the_answer_comes_back) {
    if (!can_create_tun()) GTEST_SKIP() << "needs root and /dev/net/tun";
    test_gateway      gateway(tun_options);
    test_client       client(gateway.port());
    std::string       inner = line_of(client.configure(), "X-CSTP-Address-Client");
    common::unique_fd site  = udp_socket("10.99.0.1", 5000);
    client.send(frame_data, std::string(text_of(udp_packet(inner, "10.99.0.1", 5000, "question"))));

    char        data[64] = "";
    sockaddr_in from{};
    socklen_t   size = sizeof from;
    ASSERT_EQ(recvfrom(site.get(), data, sizeof data, 0, reinterpret_cast<sockaddr *>(&from), &size), 8);
    EXPECT_STREQ(data, "question");
    EXPECT_EQ(ipv4_text(ntohl(from.sin_addr.s_addr)), inner);

    sendto(site.get(), "answer", 6, 0, reinterpret_cast<sockaddr *>(&from), size);
    byte_vector frame = client.read().bytes;
    ASSERT_EQ(frame.size(), 8u + 28 + 6);
    EXPECT_EQ(frame[6], frame_data);
    EXPECT_EQ(text_of(byte_view(frame).last(6)), "answer");
}

TEST(gateway_tun, packets_for_nobody_are_counted) {
    if (!can_create_tun()) GTEST_SKIP() << "needs root and /dev/net/tun";
    test_gateway      gateway(tun_options);
    common::unique_fd site   = udp_socket("10.99.0.1", 5000);
    sockaddr_in       nobody = udp_address("10.99.0.200", 1);
    sendto(site.get(), "x", 1, 0, reinterpret_cast<sockaddr *>(&nobody), sizeof nobody);
    EXPECT_TRUE(gateway.controller().counts("tun_no_route", 1));
}

TEST(gateway_tun, a_pool_outside_the_interface_gets_its_route) {
    if (!can_create_tun()) GTEST_SKIP() << "needs root and /dev/net/tun";
    auto options = tun_options;
    options.insert(options.end(), {"--pool", "10.98.1.5-10.98.1.9"});
    test_gateway gateway(options);
    test_client  client(gateway.port());
    std::string  inner = line_of(client.configure(), "X-CSTP-Address-Client");
    EXPECT_EQ(inner, "10.98.1.5");
    common::unique_fd site = udp_socket("10.99.0.1", 5000);
    sockaddr_in       to   = udp_address(inner, 9);
    sendto(site.get(), "x", 1, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    EXPECT_EQ(client.read().bytes.size(), 8u + 28 + 1);
}

TEST(gateway_tun, packets_of_the_interfaces_mtu_pass_and_keep_their_bytes) {
    if (!can_create_tun()) GTEST_SKIP() << "needs root and /dev/net/tun";
    auto options = tun_options;
    options.insert(options.end(), {"--mtu", "1436"});
    test_gateway      gateway(options);
    test_client       client(gateway.port());
    std::string       inner = line_of(client.configure(), "X-CSTP-Address-Client");
    common::unique_fd site  = udp_socket("10.99.0.1", 5000);
    sockaddr_in       to    = udp_address(inner, 9);
    std::string       data(1436 - 28, 'm');
    sendto(site.get(), data.data(), data.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    byte_vector frame = client.read().bytes;
    ASSERT_EQ(frame.size(), 8u + 1436);
    EXPECT_EQ(text_of(byte_view(frame).last(data.size())), data);
}

TEST(gateway_tun, the_interface_goes_with_the_gateway) {
    if (!can_create_tun()) GTEST_SKIP() << "needs root and /dev/net/tun";
    {
        test_gateway gateway(tun_options);
        EXPECT_NE(if_nametoindex("gwtest0"), 0u);
    }
    EXPECT_EQ(if_nametoindex("gwtest0"), 0u);
}

TEST(gateway_tun, an_interface_that_is_in_use_is_a_failure_with_one_line) {
    if (!can_create_tun()) GTEST_SKIP() << "needs root and /dev/net/tun";
    test_gateway gateway(tun_options);
    common::loop loop;
    auto         words = tun_options;
    words.insert(words.end(), {"--listen", "127.0.0.1:0", "--psk-file", gateway.dir.file("psk")});
    try {
        tunnel_gateway second(options_from(words), loop);
        FAIL() << "took the interface";
    } catch (const runtime_failure &failure) {
        EXPECT_EQ(std::string(failure.what()), "cannot create the interface gwtest0: Device or resource busy");
    }
}
