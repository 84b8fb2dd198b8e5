// The packet path between the TUN descriptor and the frames: over a socket pair in the TUN device's place, and over a
// real TUN interface. The frame writer is stood in for; reads and writes of the TUN descriptor fail on demand.

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <linux/if_tun.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>

#include "tlsc_cstp.h"

#include "tunnel_fixture.h"

// ---- stand-ins ------------------------------------------------------------------------------------------------------

namespace {

std::string sent;         // the packet that the frame writer got
int         sends;        // how often
int32_t     send_result;  // its outcome
int         broken_fd;    // reads and writes of it fail
int         broken_errno;
ssize_t     broken_result;
size_t      read_room;  // bytes asked for by the last read of the TUN descriptor

}  // namespace

extern "C" int32_t __wrap_tlsc_write_cstp_data_pak(tlsc_sock *, const uint8_t *buff, int32_t len) {
    sent.assign(reinterpret_cast<const char *>(buff), static_cast<size_t>(len));
    ++sends;
    return send_result;
}

extern "C" ssize_t __real_read(int fd, void *buffer, size_t size);
extern "C" ssize_t __wrap_read(int fd, void *buffer, size_t size) {
    read_room = size;
    if (fd != broken_fd) return __real_read(fd, buffer, size);
    errno = broken_errno;
    return broken_result;
}

extern "C" ssize_t __real_write(int fd, const void *buffer, size_t size);
extern "C" ssize_t __wrap_write(int fd, const void *buffer, size_t size) {
    if (fd != broken_fd) return __real_write(fd, buffer, size);
    errno = broken_errno;
    return broken_result;
}

namespace {

std::string dotted(const std::string &packet, size_t offset) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, packet.data() + offset, text, sizeof(text));
    return text;
}

uint16_t word_at(const std::string &bytes, size_t at) {
    return static_cast<uint16_t>(static_cast<uint8_t>(bytes[at]) << 8 | static_cast<uint8_t>(bytes[at + 1]));
}
void put_word(std::string &bytes, size_t at, uint16_t value) {
    bytes[at]     = static_cast<char>(value >> 8);
    bytes[at + 1] = static_cast<char>(value);
}

// RFC 1071 over the bytes and a start value; 0 for a text that holds its own correct checksum.
uint16_t checksum(const std::string &bytes, uint32_t sum = 0) {
    for (size_t i = 0; i < bytes.size(); i += 2)
        sum += static_cast<uint32_t>(static_cast<uint8_t>(bytes[i]) << 8 |
                                     (i + 1 < bytes.size() ? static_cast<uint8_t>(bytes[i + 1]) : 0));
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}
// The sum of the UDP pseudo header of the packet.
uint32_t pseudo_sum(const std::string &packet) {
    uint32_t sum = 17 + static_cast<uint32_t>(packet.size() - 20);
    for (size_t at = 12; at < 20; at += 2) sum += word_at(packet, at);
    return sum;
}

// An IPv4 packet of the given length, UDP, with correct checksums.
std::string udp_packet(const char *from, const char *to, size_t length) {
    std::string packet(length, 'u');
    packet.replace(0, 28, std::string(28, '\0'));
    packet[0] = 0x45;
    packet[8] = 64;
    packet[9] = 17;
    put_word(packet, 2, static_cast<uint16_t>(length));
    inet_pton(AF_INET, from, packet.data() + 12);
    inet_pton(AF_INET, to, packet.data() + 16);
    put_word(packet, 10, checksum(packet.substr(0, 20)));
    put_word(packet, 20, 5000);
    put_word(packet, 22, 5001);
    put_word(packet, 24, static_cast<uint16_t>(length - 20));
    put_word(packet, 26, checksum(packet.substr(20), pseudo_sum(packet)));
    return packet;
}

void expect_good_checksums(const std::string &packet) {
    EXPECT_EQ(checksum(packet.substr(0, 20)), 0);
    EXPECT_EQ(checksum(packet.substr(20), pseudo_sum(packet)), 0);
}

const std::string ipv6_packet = std::string("\x60\x00\x00\x00\x00\x08\x3a\xff", 8) + std::string(40, '\x5a');

class engine_data_path : public tunnel_test {
protected:
    engine_data_path() {
        sent.clear();
        sends       = 0;
        send_result = 1;
        broken_fd   = -1;
        attach_session();
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        session.tun_fd        = ends[0];
        conf->inner_addr.kind = ADDR_IPV4;
        inet_pton(AF_INET, "10.99.0.7", conf->inner_addr.ipv4);
        strcpy(conf->management_ip, "192.168.1.5");
    }
    ~engine_data_path() override {
        for (int fd : ends) close(fd);
    }
    void break_tun(int error, ssize_t result = -1) {
        broken_fd     = session.tun_fd;
        broken_errno  = error;
        broken_result = result;
    }
    // Queues a packet on the device's side and lets the code under test take it.
    int32_t carry_out(const std::string &packet) {
        EXPECT_EQ(__real_write(ends[1], packet.data(), packet.size()), static_cast<ssize_t>(packet.size()));
        return tlsc_tun_read_and_process(sock);
    }
    // A packet from the gateway; the buffer is as large as a frame's payload.
    int32_t carry_in(const std::string &packet, int32_t length = -1) {
        uint8_t buffer[1493] = {};
        memcpy(buffer, packet.data(), std::min(packet.size(), sizeof(buffer)));
        return tlsc_tun_write(sock, buffer, length >= 0 ? length : static_cast<int32_t>(packet.size()));
    }
    std::string arrived() {
        char          bytes[3000];
        const ssize_t count = recv(ends[1], bytes, sizeof(bytes), MSG_DONTWAIT);
        return count > 0 ? std::string(bytes, static_cast<size_t>(count)) : "";
    }
    std::string conn() const { return text_of("%p", static_cast<void *>(sock)); }

    int ends[2];
};

// ---- names ----------------------------------------------------------------------------------------------------------

TEST_F(engine_data_path, result_codes_0_to_9_have_names_and_all_others_no_error) {
    const char *names[] = {"TLSC_CSTP_RESP_ERR_NONE",       "TLSC_CSTP_START_TIMER_FAILED",
                           "TLSC_CSTP_INVALID_FRAME_RECVD", "TLSC_CSTP_FRAME_SIZE_TOO_BIG",
                           "TLSC_CSTP_DATA_WRITE_FAILED",   "TLSC_CSTP_EPOLL_CTL_FAILED",
                           "TLSC_CSTP_NULL_PTR_RECVD",      "TLSC_CSTP_INVALID_ADDR",
                           "TLSC_CSTP_ADDR_NOT_RECVD",      "TLSC_CSTP_SESS_NOT_FOUND"};
    for (int code = 0; code < 10; ++code) EXPECT_STREQ(tlsc_cstp_resp_name(code), names[code]);
    for (int code : {-1, 10, 11, 12, 13, INT32_MAX, INT32_MIN}) EXPECT_STREQ(tlsc_cstp_resp_name(code), "No error");
}

// ---- out ------------------------------------------------------------------------------------------------------------

TEST_F(engine_data_path, an_outbound_packet_leaves_with_the_assigned_address_and_good_checksums) {
    const std::string packet = udp_packet("192.168.1.5", "8.8.8.8", 100);
    EXPECT_EQ(carry_out(packet), 1);
    ASSERT_EQ(sent.size(), packet.size());
    EXPECT_EQ(dotted(sent, 12), "10.99.0.7");
    EXPECT_EQ(dotted(sent, 16), "8.8.8.8");
    expect_good_checksums(sent);
    EXPECT_EQ(sent.substr(28), packet.substr(28));
    EXPECT_TRUE(
        log.has("DEBUG", engine_file, "tlsc_tun_read_and_process", "read 100 bytes from tun in read and process"));
    expect_counters({{"tun_pkt_rx", 1}});
}

TEST_F(engine_data_path, a_tunnel_that_goes_on_under_new_settings_keeps_its_address_until_it_gets_another) {
    const std::string packet = udp_packet("192.168.1.5", "8.8.8.8", 40);
    for (int readings = 0; readings < 2; ++readings) {
        tlsc_keep_tunnel_settings();
        conf->inner_addr = {};
    }
    EXPECT_EQ(carry_out(packet), 1);
    EXPECT_EQ(dotted(sent, 12), "10.99.0.7");
    conf->inner_addr.kind = ADDR_IPV4;
    inet_pton(AF_INET, "10.99.0.8", conf->inner_addr.ipv4);
    EXPECT_EQ(carry_out(packet), 1);
    EXPECT_EQ(dotted(sent, 12), "10.99.0.8");
}

TEST_F(engine_data_path, whatever_the_source_is_it_becomes_the_assigned_address) {
    EXPECT_EQ(carry_out(udp_packet("172.16.9.9", "8.8.8.8", 60)), 1);
    EXPECT_EQ(dotted(sent, 12), "10.99.0.7");
    expect_good_checksums(sent);
}

TEST_F(engine_data_path, the_outcome_of_the_frame_writer_is_passed_on) {
    for (int32_t outcome : {0, 1, 2, 3}) {
        send_result = outcome;
        EXPECT_EQ(carry_out(udp_packet("192.168.1.5", "8.8.8.8", 40)), outcome);
    }
}

TEST_F(engine_data_path, a_packet_that_is_not_ipv4_passes_out_unaltered) {
    EXPECT_EQ(carry_out(ipv6_packet), 1);
    EXPECT_EQ(sent, ipv6_packet);
    for (int version : {0, 1, 2, 3, 5, 7, 15}) {
        std::string packet = udp_packet("192.168.1.5", "8.8.8.8", 40);
        packet[0]          = static_cast<char>(version << 4 | 5);
        EXPECT_EQ(carry_out(packet), 1);
        EXPECT_EQ(sent, packet) << version;
    }
}

TEST_F(engine_data_path, at_most_1436_bytes_are_read) {
    EXPECT_EQ(carry_out(udp_packet("192.168.1.5", "8.8.8.8", 1436)), 1);
    EXPECT_EQ(read_room, 1436u);
    EXPECT_EQ(sent.size(), 1436u);
}

TEST_F(engine_data_path, packets_of_every_short_length_are_handled_inside_the_buffer) {
    tlsc_log_level = LOG_ERRORS;
    for (int first = 0x40; first <= 0x4F; ++first)
        for (size_t length = 1; length < 80; ++length) {
            std::string packet = udp_packet("192.168.1.5", "8.8.8.8", 80).substr(0, length);
            packet[0]          = static_cast<char>(first);
            ASSERT_EQ(carry_out(packet), 1);
            ASSERT_EQ(sent.size(), length);
            ASSERT_EQ(sent.substr(0, std::min<size_t>(length, 10)), packet.substr(0, std::min<size_t>(length, 10)));
        }
}

TEST_F(engine_data_path, one_call_takes_one_packet) {
    const std::string first  = udp_packet("192.168.1.5", "8.8.8.8", 40),
                      second = udp_packet("192.168.1.5", "9.9.9.9", 50);
    ASSERT_EQ(__real_write(ends[1], first.data(), first.size()), 40);
    EXPECT_EQ(carry_out(second), 1);
    ASSERT_EQ(sends, 1);
    EXPECT_EQ(dotted(sent, 16), "8.8.8.8");
    EXPECT_EQ(tlsc_tun_read_and_process(sock), 1);
    EXPECT_EQ(sends, 2);
    EXPECT_EQ(dotted(sent, 16), "9.9.9.9");
}

TEST_F(engine_data_path, a_disabled_data_path_reads_and_drops_the_packet_and_returns_0) {
    tlsc_dp_state = 0;
    EXPECT_EQ(carry_out(udp_packet("192.168.1.5", "8.8.8.8", 40)), 0);
    EXPECT_EQ(sends, 0);
    EXPECT_TRUE(log.has("WARNING", engine_file, "tlsc_tun_read_and_process",
                        "DP-STATE for client = 0... Not writing data-frame on ssl-socket"));
    expect_counters({{"tun_pkt_rx", 1}});
    char byte;
    EXPECT_LT(recv(ends[0], &byte, 1, MSG_DONTWAIT), 0);
}

TEST_F(engine_data_path, a_read_without_context_or_session_is_refused) {
    EXPECT_EQ(tlsc_tun_read_and_process(nullptr), 0);
    sock->sess = nullptr;
    EXPECT_EQ(tlsc_tun_read_and_process(sock), 0);
    EXPECT_EQ(log.count("ERROR", engine_file, "tlsc_tun_read_and_process", "Null ptr received for sock/sock->sess"),
              2u);
    expect_counters({});
}

TEST_F(engine_data_path, read_errors_are_counted_by_errno) {
    const struct {
        int         error;
        const char *counter;
    } cases[] = {{EFAULT, "tun_read_errors_efault"},
                 {EINVAL, "tun_read_errors_einval"},
                 {EBADF, "tun_read_errors_ebadf"},
                 {EIO, "tun_read_errors_others"},
                 {EAGAIN, "tun_read_errors_others"}};
    for (const auto &c : cases) {
        tlsc_stats_clear();
        break_tun(c.error);
        EXPECT_EQ(tlsc_tun_read_and_process(sock), 0);
        expect_counters({{"tun_read_errors_total", 1}, {c.counter, 1}});
    }
    EXPECT_EQ(log.count("ERROR", engine_file, "tlsc_tun_read_and_process", "Could not read pkt from tun"), 5u);
    EXPECT_EQ(sends, 0);
}

TEST_F(engine_data_path, a_read_of_0_bytes_is_an_error_of_the_class_of_the_stale_errno) {
    break_tun(EINVAL, 0);
    EXPECT_EQ(tlsc_tun_read_and_process(sock), 0);
    expect_counters({{"tun_read_errors_total", 1}, {"tun_read_errors_einval", 1}});
}

// ---- in -------------------------------------------------------------------------------------------------------------

TEST_F(engine_data_path, an_inbound_packet_arrives_with_the_management_address_and_good_checksums) {
    const std::string packet = udp_packet("8.8.8.8", "10.99.0.7", 100);
    EXPECT_EQ(carry_in(packet), 100);
    const std::string out = arrived();
    ASSERT_EQ(out.size(), packet.size());
    EXPECT_EQ(dotted(out, 12), "8.8.8.8");
    EXPECT_EQ(dotted(out, 16), "192.168.1.5");
    expect_good_checksums(out);
    EXPECT_EQ(out.substr(28), packet.substr(28));
    EXPECT_TRUE(log.has("DEBUG", engine_file, "tlsc_tun_write",
                        text_of("Successfully wrote 100 bytes on TUN-interface(%d)", ends[0])));
    expect_counters({{"tun_pkt_tx", 1}});
}

TEST_F(engine_data_path, a_management_text_that_is_no_address_becomes_all_ones) {
    strcpy(conf->management_ip, "nowhere");
    EXPECT_EQ(carry_in(udp_packet("8.8.8.8", "10.99.0.7", 60)), 60);
    const std::string out = arrived();
    EXPECT_EQ(dotted(out, 16), "255.255.255.255");
    expect_good_checksums(out);
}

TEST_F(engine_data_path, a_changed_management_address_counts_from_the_next_packet_on) {
    for (const auto &[text, expected] :
         std::vector<std::pair<const char *, const char *>>{{"192.168.1.5", "192.168.1.5"},
                                                            {"192.168.1.55", "192.168.1.55"},
                                                            {"", "255.255.255.255"},
                                                            {"10.1", "10.0.0.1"},
                                                            {"192.168.1.5", "192.168.1.5"}}) {
        strcpy(conf->management_ip, text);
        ASSERT_EQ(carry_in(udp_packet("8.8.8.8", "10.99.0.7", 60)), 60);
        EXPECT_EQ(dotted(arrived(), 16), expected) << text;
    }
}

TEST_F(engine_data_path, a_packet_that_is_not_ipv4_passes_in_unaltered) {
    EXPECT_EQ(carry_in(ipv6_packet), static_cast<int32_t>(ipv6_packet.size()));
    EXPECT_EQ(arrived(), ipv6_packet);
}

TEST_F(engine_data_path, an_inbound_packet_of_1436_bytes_is_written_and_1437_refused) {
    EXPECT_EQ(carry_in(udp_packet("8.8.8.8", "10.99.0.7", 1436)), 1436);
    EXPECT_EQ(arrived().size(), 1436u);
    log.clear();
    for (int32_t length : {1437, 1492, 65535}) {
        EXPECT_EQ(carry_in(udp_packet("8.8.8.8", "10.99.0.7", 1437), length), 0);
        EXPECT_TRUE(
            log.has("ERROR", engine_file, "tlsc_tun_write",
                    text_of("Frame too big to write to tun intf for conn %s. len received = %d, Max-limit = 1436",
                            conn().c_str(), length)));
    }
    EXPECT_EQ(log.count("ERROR", engine_file, "tlsc_tun_write",
                        "Processing CSTP frame failed due to error TLSC_CSTP_FRAME_SIZE_TOO_BIG\n"),
              3u);
    EXPECT_EQ(arrived(), "");
    expect_counters({{"tun_pkt_tx", 1}});
}

TEST_F(engine_data_path, inbound_packets_of_every_short_length_are_handled_inside_the_buffer) {
    tlsc_log_level = LOG_ERRORS;
    for (int first = 0x40; first <= 0x4F; ++first)
        for (int protocol : {0, 1, 6, 17, 255})
            for (size_t length = 1; length < 80; ++length) {
                std::string packet = udp_packet("8.8.8.8", "10.99.0.7", 80).substr(0, length);
                packet[0]          = static_cast<char>(first);
                if (length > 9) packet[9] = static_cast<char>(protocol);
                ASSERT_EQ(carry_in(packet), static_cast<int32_t>(length));
                const std::string out = arrived();
                ASSERT_EQ(out.size(), length);
                ASSERT_EQ(out.substr(0, 10), packet.substr(0, 10));
            }
}

TEST_F(engine_data_path, a_negative_length_is_refused) {
    uint8_t buffer[1493] = {};
    EXPECT_EQ(tlsc_tun_write(sock, buffer, -1), 0);
    EXPECT_EQ(arrived(), "");
}

TEST_F(engine_data_path, a_write_without_context_buffer_or_session_is_refused) {
    uint8_t buffer[100] = {};
    EXPECT_EQ(tlsc_tun_write(nullptr, buffer, 1), 0);
    EXPECT_EQ(tlsc_tun_write(sock, nullptr, 1), 0);
    sock->sess = nullptr;
    EXPECT_EQ(tlsc_tun_write(sock, buffer, 1), 0);
    EXPECT_EQ(log.count("ERROR", engine_file, "tlsc_tun_write", "Null ptr received for sock/buff/sock->sess"), 3u);
    EXPECT_EQ(log.count("ERROR", engine_file, "tlsc_tun_write",
                        "Processing CSTP frame failed due to error TLSC_CSTP_NULL_PTR_RECVD\n"),
              3u);
    expect_counters({});
}

TEST_F(engine_data_path, write_errors_are_counted_by_errno) {
    const struct {
        int         error;
        const char *counter;
    } cases[] = {{EFAULT, "tun_write_errors_efault"},
                 {EINVAL, "tun_write_errors_einval"},
                 {EBADF, "tun_write_errors_ebadf"},
                 {EIO, "tun_write_errors_others"},
                 {ENOBUFS, "tun_write_errors_others"}};
    for (const auto &c : cases) {
        tlsc_stats_clear();
        break_tun(c.error);
        EXPECT_EQ(carry_in(ipv6_packet), 0);
        expect_counters({{"tun_write_errors_total", 1}, {c.counter, 1}});
    }
    EXPECT_EQ(
        log.count("ERROR", engine_file, "tlsc_tun_write", "Error writing data to tun interface for conn " + conn()),
        5u);
    EXPECT_EQ(log.count("ERROR", engine_file, "tlsc_tun_write",
                        "Processing CSTP frame failed due to error TLSC_CSTP_DATA_WRITE_FAILED\n"),
              5u);
}

TEST_F(engine_data_path, a_write_of_0_bytes_counts_as_written_and_returns_0) {
    break_tun(0, 0);
    EXPECT_EQ(carry_in(ipv6_packet), 0);
    expect_counters({{"tun_pkt_tx", 1}});
    EXPECT_FALSE(log.contains("Error writing data"));
}

TEST_F(engine_data_path, a_short_write_is_not_detected) {
    break_tun(0, 7);
    EXPECT_EQ(carry_in(ipv6_packet), 7);
    expect_counters({{"tun_pkt_tx", 1}});
}

TEST_F(engine_data_path, an_inbound_packet_is_dumped_before_the_rewrite_at_level_5_only) {
    const std::string packet = udp_packet("8.8.8.8", "10.99.0.7", 28);
    carry_in(packet);
    EXPECT_FALSE(log.contains(" 0a 63 00 07"));
    tlsc_log_level = LOG_SSL_DBG;
    carry_in(packet);
    EXPECT_FALSE(log.contains(" 0a 63 00 07"));
    tlsc_log_level = LOG_BUF_PRINT;
    carry_in(packet);
    EXPECT_TRUE(log.contains("\n    0a 63 00 07"));  // the 17th byte begins a line
    EXPECT_FALSE(log.contains(" c0 a8 01 05"));
}

// ---- a real interface -----------------------------------------------------------------------------------------------

class engine_real_tun : public engine_data_path {
protected:
    void SetUp() override {
        if (!getenv("PRIVATE_WORLD")) GTEST_SKIP() << "needs root: run through tools/private-world";
        tun = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
        ASSERT_GT(tun, 0) << strerror(errno);
        strcpy(request.ifr_name, "datapath0");
        request.ifr_flags = IFF_TUN | IFF_NO_PI;
        ASSERT_EQ(ioctl(tun, TUNSETIFF, &request), 0) << strerror(errno);
        session.tun_fd = tun;
        packets        = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, htons(ETH_P_IP));
        ASSERT_GT(packets, 0);
        place.sll_family   = AF_PACKET;
        place.sll_protocol = htons(ETH_P_IP);
        place.sll_ifindex  = static_cast<int>(if_nametoindex("datapath0"));
    }
    void bring_up() {
        ifreq flags{};
        strcpy(flags.ifr_name, "datapath0");
        flags.ifr_flags = IFF_UP;
        ASSERT_EQ(ioctl(packets, SIOCSIFFLAGS, &flags), 0) << strerror(errno);
        ASSERT_EQ(bind(packets, reinterpret_cast<sockaddr *>(&place), sizeof(place)), 0);
    }
    void TearDown() override {
        if (tun > 0) close(tun);
        if (packets > 0) close(packets);
    }
    int         tun = -1, packets = -1;
    ifreq       request{};
    sockaddr_ll place{};
};

TEST_F(engine_real_tun, a_packet_of_the_devices_stack_goes_out_with_the_assigned_address) {
    bring_up();
    const std::string packet = udp_packet("192.168.1.5", "8.8.8.8", 200);
    ASSERT_EQ(sendto(packets, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr *>(&place), sizeof(place)),
              200);
    for (int i = 0; i < 20 && dotted(sent + std::string(20, '\0'), 16) != "8.8.8.8";
         ++i) {  // the kernel sends IPv6 of its own
        pollfd ready{tun, POLLIN, 0};
        ASSERT_EQ(poll(&ready, 1, 5000), 1);
        ASSERT_EQ(tlsc_tun_read_and_process(sock), 1);
    }
    EXPECT_EQ(dotted(sent, 12), "10.99.0.7");
    expect_good_checksums(sent);
    EXPECT_EQ(sent.substr(28), packet.substr(28));
}

TEST_F(engine_real_tun, a_packet_of_the_gateway_reaches_the_devices_stack) {
    bring_up();
    EXPECT_EQ(carry_in(udp_packet("8.8.8.8", "10.99.0.7", 200)), 200);
    pollfd ready{packets, POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 5000), 1);
    char          bytes[3000];
    const ssize_t count = recv(packets, bytes, sizeof(bytes), 0);
    ASSERT_EQ(count, 200);
    const std::string out(bytes, 200);
    EXPECT_EQ(dotted(out, 16), "192.168.1.5");
    expect_good_checksums(out);
}

TEST_F(engine_real_tun, a_write_while_the_interface_is_down_and_an_empty_one_are_errors) {
    EXPECT_EQ(carry_in(udp_packet("8.8.8.8", "10.99.0.7", 200)), 0);
    expect_counters({{"tun_write_errors_total", 1}, {"tun_write_errors_others", 1}});
    bring_up();
    EXPECT_EQ(carry_in("", 0), 0);
    expect_counters({{"tun_write_errors_total", 2}, {"tun_write_errors_others", 1}, {"tun_write_errors_einval", 1}});
}

}  // namespace
