// Frames: reading, writing, dispatch by type. The TLS layer and the TUN writer are stood in for; what goes over the
// wire is compared as bytes. Configuration responses have a file of their own.

#include <random>

#include <sys/timerfd.h>

#include "tlsc_cstp.h"

#include "tunnel_fixture.h"

// ---- stand-ins ------------------------------------------------------------------------------------------------------

namespace {

std::string written;         // what the code under test gave to the TLS layer
tlsc_sock  *written_on;      // and on which connection
int32_t     tls_result = 1;  // outcome of the next TLS operations
std::string to_read;         // what the next TLS read delivers
int         reads;           // TLS reads asked for
int32_t     read_room;       // bytes asked for by the last TLS read
std::string tun_bytes;       // what the TUN writer got, by its announced length, at most what is readable
int32_t     tun_length = -1;
int32_t     tun_result = 1;
bool        timers_fail;

}  // namespace

extern "C" int32_t __wrap_tlsc_ssl_write(tlsc_sock *sock, const void *buff, int32_t length, int32_t *result) {
    if (!sock) return 0;  // the holder is left alone
    if (result) *result = tls_result;
    if (tls_result != 1) return 0;
    written_on = sock;
    written.append(static_cast<const char *>(buff), static_cast<size_t>(length));
    return length;
}

extern "C" int32_t __wrap_tlsc_ssl_read(tlsc_sock *, void *buff, int32_t length, int32_t *result) {
    ++reads;
    read_room = length;
    if (result) *result = tls_result;
    if (tls_result != 1) return 0;
    const size_t count = std::min(to_read.size(), static_cast<size_t>(length));
    memcpy(buff, to_read.data(), count);
    return static_cast<int32_t>(count);
}

extern "C" int32_t __wrap_tlsc_tun_write(tlsc_sock *, uint8_t *buff, int32_t length) {
    tun_length = length;
    tun_bytes.assign(reinterpret_cast<const char *>(buff),
                     std::min<size_t>(static_cast<size_t>(length), max_payload_size));
    return tun_result;
}

extern "C" int __real_timerfd_create(int clock, int flags);
extern "C" int __wrap_timerfd_create(int clock, int flags) {
    return timers_fail ? -1 : __real_timerfd_create(clock, flags);
}

namespace {

class tlsc_cstp : public tunnel_test {
protected:
    tlsc_cstp() {
        written.clear();
        written_on = nullptr;
        tls_result = 1;
        to_read.clear();
        reads     = 0;
        read_room = 0;
        tun_bytes.clear();
        tun_length  = -1;
        tun_result  = 1;
        timers_fail = false;
        attach_session();
        open_epoll();
    }

    // A handle that is only tested for being there: the TLS layer is stood in for.
    void pretend_tls() { sock->ssl = reinterpret_cast<ssl_st *>(this); }

    // A frame with anything in it, as the event loop gives it, filled by one read of these bytes.
    int32_t read_bytes(const std::string &bytes) {
        to_read = bytes;
        memset(&frame, 0xa5, sizeof(frame));
        return tlsc_cstp_read_frame(sock, &frame);
    }

    int32_t process(int type, const std::string &payload) {
        pretend_tls();
        read_bytes(wire_frame(type, payload));
        return tlsc_process_cstp_frame(sock, &frame);
    }

    // What is looked at of a frame with so many bytes announced: header, payload, its end, and what the checksum
    // reaches.
    std::string looked_at(size_t announced) const {
        const size_t payload = std::min(std::max<size_t>(announced + 1, 80), sizeof(frame.payload));
        return {reinterpret_cast<const char *>(&frame), sizeof(frame.header) + payload};
    }
    std::string failed_due_to(const char *name) const {
        return text_of("Processing CSTP frame failed due to error %s\n", name);
    }

    tlsc_cstp_frame frame{};
};

// ---- reading --------------------------------------------------------------------------------------------------------

TEST_F(tlsc_cstp, null_arguments_of_the_reader_are_refused_with_0) {
    EXPECT_EQ(tlsc_cstp_read_frame(sock, &frame), 0);  // no TLS session
    pretend_tls();
    EXPECT_EQ(tlsc_cstp_read_frame(nullptr, &frame), 0);
    EXPECT_EQ(tlsc_cstp_read_frame(sock, nullptr), 0);
    EXPECT_EQ(log.count("ERROR", cstp_file, "tlsc_cstp_read_frame", "Null pointer received for sock/frame/ssl"), 3u);
    EXPECT_EQ(reads, 0);
}

TEST_F(tlsc_cstp, one_read_of_at_most_1500_bytes_gives_one_frame) {
    pretend_tls();
    EXPECT_EQ(read_bytes(wire_frame(0, "packet")), 1);
    EXPECT_EQ(read_room, 1500);
    EXPECT_EQ(looked_at(6), wire_frame(0, "packet") + std::string(74, '\0'));
    EXPECT_TRUE(log.has("DEBUG", cstp_file, "tlsc_cstp_read_frame",
                        text_of("Read 14 bytes from SSL for conn %p", static_cast<void *>(sock))));
    EXPECT_TRUE(log.has("DEBUG", cstp_file, "tlsc_cstp_read_frame", "Header data len = 6, Reading the rest of msg"));
}

TEST_F(tlsc_cstp, bytes_behind_the_announced_length_are_not_taken) {
    pretend_tls();
    EXPECT_EQ(read_bytes(wire_frame(0, "packet") + wire_frame(0, "second")), 1);
    EXPECT_EQ(looked_at(6), wire_frame(0, "packet") + std::string(74, '\0'));
}

TEST_F(tlsc_cstp, a_length_of_zero_gives_an_empty_payload) {
    pretend_tls();
    EXPECT_EQ(read_bytes(wire_frame(4, "")), 1);
    EXPECT_EQ(looked_at(0), wire_frame(4, "") + std::string(80, '\0'));
}

TEST_F(tlsc_cstp, a_short_read_keeps_the_announced_length_and_fills_up_with_zeroes) {
    pretend_tls();
    std::string announced_100 = wire_frame(0, std::string(100, 'x')).substr(0, 30);
    EXPECT_EQ(read_bytes(announced_100), 1);
    EXPECT_EQ(reads, 1);  // none for the rest
    EXPECT_EQ(looked_at(100), announced_100 + std::string(79, '\0'));
    EXPECT_EQ(tlsc_process_cstp_frame(sock, &frame), 1);
    EXPECT_EQ(tun_length, 100);
    EXPECT_EQ(tun_bytes, std::string(22, 'x') + std::string(78, '\0'));
}

TEST_F(tlsc_cstp, every_announced_length_is_read_without_leaving_the_buffers) {
    pretend_tls();
    log.clear();
    tlsc_log_level = LOG_ERRORS;
    const std::string full(1492, 'y');
    for (int announced = 0; announced <= 65535; ++announced) {
        std::string bytes = wire_frame(0, full);
        bytes[4]          = static_cast<char>(announced >> 8);
        bytes[5]          = static_cast<char>(announced);
        ASSERT_EQ(read_bytes(bytes), 1);
        const size_t kept = std::min<size_t>(static_cast<size_t>(announced), 1492);
        ASSERT_EQ(frame.payload[kept], 0) << announced;
        ASSERT_EQ(kept == 0 || frame.payload[kept - 1] == 'y', true) << announced;
        ASSERT_EQ(tlsc_process_cstp_frame(sock, &frame), 1);
        ASSERT_EQ(tun_length, announced);  // the writer refuses what is too long, and tells the right number
    }
}

TEST_F(tlsc_cstp, a_read_below_the_header_gives_a_zeroed_header) {
    pretend_tls();
    for (size_t n = 1; n < 8; ++n) {
        EXPECT_EQ(read_bytes(std::string(n, '\0')), 1) << n;
        EXPECT_EQ(looked_at(0), std::string(88, '\0'));
    }
}

TEST_F(tlsc_cstp, a_failed_read_returns_its_result_and_says_writing) {
    pretend_tls();
    for (int32_t result : {0, 2, 3}) {
        log.clear();
        tls_result = result;
        EXPECT_EQ(read_bytes("STF"), result);
        EXPECT_TRUE(log.has("DEBUG", cstp_file, "tlsc_cstp_read_frame",
                            text_of("Read 0 bytes from SSL for conn %p", static_cast<void *>(sock))));
        EXPECT_TRUE(log.has(
            "ERROR", cstp_file, "tlsc_cstp_read_frame",
            text_of("Got error %d while writing data pak to SSL for conn %p", result, static_cast<void *>(sock))));
        EXPECT_FALSE(log.contains("Header data len"));
    }
}

// ---- writing --------------------------------------------------------------------------------------------------------

TEST_F(tlsc_cstp, a_data_frame_is_the_header_and_the_packet) {
    const uint8_t packet[] = {0x45, 0x00, 0x01};
    EXPECT_EQ(tlsc_write_cstp_data_pak(sock, packet, 3), 1);
    EXPECT_EQ(written, std::string("\x53\x54\x46\x01\x00\x03\x00\x00\x45\x00\x01", 11));
    EXPECT_TRUE(
        log.has("DEBUG", cstp_file, "tlsc_write_cstp_data_pak",
                text_of("Successfully wrote 11 bytes out of 11 bytes, on SSL conn %p", static_cast<void *>(sock))));
    expect_counters({{"data_pkt_tx", 1}});
}

TEST_F(tlsc_cstp, the_length_field_is_big_endian) {
    const std::string packet(0x0123, 'p');
    EXPECT_EQ(tlsc_write_cstp_data_pak(sock, reinterpret_cast<const uint8_t *>(packet.data()), 0x0123), 1);
    EXPECT_EQ(written.substr(0, 8), std::string("STF\x01\x01\x23\x00\x00", 8));
    EXPECT_EQ(written.substr(8), packet);
}

TEST_F(tlsc_cstp, a_data_frame_goes_to_the_connection_recorded_in_the_session) {
    tlsc_sock other{};
    session.conn           = &other;
    const uint8_t packet[] = {0x45};
    EXPECT_EQ(tlsc_write_cstp_data_pak(sock, packet, 1), 1);
    EXPECT_EQ(written_on, &other);
}

TEST_F(tlsc_cstp, a_packet_of_1436_bytes_is_written_and_1437_refused) {
    const std::vector<uint8_t> packet(2000, 0x45);
    EXPECT_EQ(tlsc_write_cstp_data_pak(sock, packet.data(), 1436), 1);
    EXPECT_EQ(written.size(), 1444u);
    written.clear();
    EXPECT_EQ(tlsc_write_cstp_data_pak(sock, packet.data(), 1437), 0);
    EXPECT_TRUE(log.has("ERROR", cstp_file, "tlsc_write_cstp_data_pak",
                        "Invalid length of data pak received: 1437, Max-limit = 1436"));
    EXPECT_EQ(tlsc_write_cstp_data_pak(sock, packet.data(), -1), 0);
    EXPECT_TRUE(log.has("ERROR", cstp_file, "tlsc_write_cstp_data_pak",
                        "Invalid length of data pak received: -1, Max-limit = 1436"));
    EXPECT_EQ(tlsc_write_cstp_data_pak(sock, packet.data(), -1), 0);
    EXPECT_TRUE(written.empty());
    expect_counters({{"data_pkt_tx", 1}});
}

TEST_F(tlsc_cstp, null_arguments_of_the_data_writer_are_refused_with_0) {
    const uint8_t packet[] = {0x45};
    EXPECT_EQ(tlsc_write_cstp_data_pak(nullptr, packet, 1), 0);
    EXPECT_EQ(tlsc_write_cstp_data_pak(sock, nullptr, 1), 0);
    sock->sess = nullptr;
    EXPECT_EQ(tlsc_write_cstp_data_pak(sock, packet, 1), 0);
    EXPECT_EQ(log.count("ERROR", cstp_file, "tlsc_write_cstp_data_pak", "Null pointer received for buff/sock/sess"),
              3u);
    expect_counters({});
}

TEST_F(tlsc_cstp, a_failed_data_write_returns_the_outcome_and_counts_nothing) {
    const uint8_t packet[] = {0x45};
    for (int32_t result : {0, 2, 3}) {
        tls_result = result;
        EXPECT_EQ(tlsc_write_cstp_data_pak(sock, packet, 1), result);
        EXPECT_TRUE(log.has(
            "ERROR", cstp_file, "tlsc_write_cstp_data_pak",
            text_of("Got error %d while writing data pak to SSL for conn %p", result, static_cast<void *>(sock))));
    }
    expect_counters({});
}

TEST_F(tlsc_cstp, dpd_request_returns_0_on_success_and_1_on_failure_unlike_every_other_operation) {
    tlsc_retry_ref = 2;
    EXPECT_EQ(tlsc_send_dpd_req(sock), 0);
    EXPECT_EQ(written, std::string("STF\x01\x00\x00\x03\x00", 8));
    EXPECT_TRUE(log.has("INFO", cstp_file, "tlsc_send_dpd_req", "Sending DPD Request [Req Retry Ref #2]"));
    EXPECT_TRUE(log.has("DEBUG", cstp_file, "tlsc_send_dpd_req",
                        text_of("Successfully wrote 8 bytes for dpd-req, on SSL conn %p", static_cast<void *>(sock))));
    expect_counters({{"dpd_req_tx", 1}, {"ctrl_pkt_tx", 1}});

    for (int32_t result : {0, 2, 3}) {
        tls_result = result;
        EXPECT_EQ(tlsc_send_dpd_req(sock), 1);
    }
    EXPECT_EQ(log.count("ERROR", cstp_file, "tlsc_send_dpd_req",
                        text_of("SSL write failed for connection = %p", static_cast<void *>(sock))),
              3u);
    tls_result = 1;
    EXPECT_EQ(tlsc_send_dpd_req(nullptr), 1);
    EXPECT_TRUE(log.has("ERROR", cstp_file, "tlsc_send_dpd_req", "Null ptr received for sock"));
    expect_counters({{"dpd_req_tx", 1}, {"ctrl_pkt_tx", 1}});
}

// ---- dispatch -------------------------------------------------------------------------------------------------------

TEST_F(tlsc_cstp, null_arguments_of_the_dispatcher_are_refused_with_0) {
    EXPECT_EQ(tlsc_process_cstp_frame(nullptr, &frame), 0);
    EXPECT_EQ(tlsc_process_cstp_frame(sock, nullptr), 0);
    EXPECT_EQ(log.count("ERROR", cstp_file, "tlsc_process_cstp_frame", "Null ptr received for sock/frame"), 2u);
    EXPECT_EQ(log.count("ERROR", cstp_file, "tlsc_process_cstp_frame", failed_due_to("TLSC_CSTP_NULL_PTR_RECVD")), 2u);
}

TEST_F(tlsc_cstp, a_data_frame_is_counted_and_handed_to_the_tun_writer) {
    EXPECT_EQ(process(0, "E-packet"), 1);
    EXPECT_EQ(tun_length, 8);
    EXPECT_EQ(tun_bytes, "E-packet");
    EXPECT_TRUE(log.has("DEBUG", cstp_file, "tlsc_process_cstp_frame",
                        text_of("Got CSTP Data frame of len 8 for conn %p", static_cast<void *>(sock))));
    expect_counters({{"data_pkt_rx", 1}});
}

TEST_F(tlsc_cstp, a_data_frame_of_length_0_is_still_handed_to_the_tun_writer) {
    EXPECT_EQ(process(0, ""), 1);
    EXPECT_EQ(tun_length, 0);
}

TEST_F(tlsc_cstp, a_data_frame_is_counted_as_received_even_if_tun_refuses_it) {
    tun_result = 0;
    EXPECT_EQ(process(0, "E"), 0);
    EXPECT_TRUE(log.has("ERROR", cstp_file, "tlsc_process_cstp_frame",
                        text_of("Could not write data-frame on tun-intf, for conn %p", static_cast<void *>(sock))));
    expect_counters({{"data_pkt_rx", 1}});
}

TEST_F(tlsc_cstp, neither_magic_nor_version_nor_reserved_byte_of_a_received_frame_is_examined) {
    pretend_tls();
    std::string bytes = wire_frame(0, "E");
    bytes.replace(0, 4, "XYZ\x07");
    bytes[7] = '\x55';
    read_bytes(bytes);
    EXPECT_EQ(tlsc_process_cstp_frame(sock, &frame), 1);
    EXPECT_EQ(tun_bytes, "E");
}

TEST_F(tlsc_cstp, every_type_but_0_2_and_4_is_counted_as_invalid_and_dropped) {
    size_t invalid = 0;
    for (int type = 0; type <= 255; ++type) {
        if (type == 0 || type == 2 || type == 4) continue;
        log.clear();
        EXPECT_EQ(process(type, "payload"), 0) << type;
        ++invalid;
        EXPECT_TRUE(log.has(
            "ERROR", cstp_file, "tlsc_process_cstp_frame",
            text_of("Receieved invalid cstp frame(%d) for conn %p.. dropping..", type, static_cast<void *>(sock))))
            << type;
        EXPECT_TRUE(
            log.has("ERROR", cstp_file, "tlsc_process_cstp_frame", failed_due_to("TLSC_CSTP_INVALID_FRAME_RECVD")))
            << type;
        EXPECT_FALSE(log.contains("Closing connection"));
    }
    EXPECT_EQ(tun_length, -1);
    expect_counters({{"invalid_rx", invalid}});
}

TEST_F(tlsc_cstp, a_dpd_response_arms_the_dpd_timer_stops_the_retry_timer_and_resets_the_counter) {
    tlsc_retry_ref = 3;
    ASSERT_EQ(tlsc_start_timer(&tlsc_timers.retry, 0), 1);
    log.clear();
    EXPECT_EQ(process(4, "ignored payload"), 1);
    EXPECT_GT(tlsc_timers.dpd, 0);
    EXPECT_EQ(tlsc_timers.retry, -1);
    EXPECT_EQ(tlsc_retry_ref, 0);
    EXPECT_TRUE(log.has("INFO", cstp_file, "tlsc_process_cstp_frame",
                        text_of("Got CSTP dpd resp frame [Req Retry Ref #3] for conn %p", static_cast<void *>(sock))));
    expect_counters({{"dpd_rsp_rx", 1}, {"ctrl_pkt_rx", 1}});

    itimerspec setting{};
    ASSERT_EQ(timerfd_gettime(tlsc_timers.dpd, &setting), 0);
    EXPECT_GT(setting.it_value.tv_sec, 6);  // 8 or 9 seconds of the default 10
    EXPECT_EQ(setting.it_interval.tv_sec, 0);
}

TEST_F(tlsc_cstp, an_unsolicited_dpd_response_logs_that_no_retry_timer_runs) {
    EXPECT_EQ(process(4, ""), 1);
    EXPECT_TRUE(log.has("ERROR", timer_file, "tlsc_stop_timer", "Invalid timer-fd received in stop-timer"));
    expect_counters({{"dpd_rsp_rx", 1}, {"ctrl_pkt_rx", 1}});
}

TEST_F(tlsc_cstp, a_dpd_response_while_the_dpd_timer_is_armed_does_not_postpone_it) {
    ASSERT_EQ(tlsc_start_timer(&tlsc_timers.dpd, 1), 1);
    ASSERT_EQ(tlsc_start_timer(&tlsc_timers.retry, 0), 1);
    const itimerspec in_an_hour{{0, 0}, {3600, 0}};
    ASSERT_EQ(timerfd_settime(tlsc_timers.dpd, 0, &in_an_hour, nullptr), 0);
    tlsc_retry_ref   = 2;
    const int32_t fd = tlsc_timers.dpd;
    EXPECT_EQ(process(4, ""), 1);
    EXPECT_EQ(tlsc_timers.dpd, fd);
    itimerspec setting{};
    ASSERT_EQ(timerfd_gettime(fd, &setting), 0);
    EXPECT_GT(setting.it_value.tv_sec, 3500);
    EXPECT_EQ(tlsc_timers.retry, -1);
    EXPECT_EQ(tlsc_retry_ref, 0);
}

TEST_F(tlsc_cstp, the_retry_timer_keeps_running_when_the_dpd_timer_cannot_be_armed) {
    ASSERT_EQ(tlsc_start_timer(&tlsc_timers.retry, 0), 1);
    tlsc_retry_ref = 2;
    timers_fail    = true;
    log.clear();
    EXPECT_EQ(process(4, ""), 0);
    EXPECT_GT(tlsc_timers.retry, 0);
    EXPECT_EQ(tlsc_retry_ref, 2);
    EXPECT_TRUE(log.has("WARNING", cstp_file, "tlsc_process_cstp_frame",
                        text_of("Could not start DPD timer for conn %p", static_cast<void *>(sock))));
    EXPECT_TRUE(log.has("ERROR", cstp_file, "tlsc_process_cstp_frame", failed_due_to("TLSC_CSTP_START_TIMER_FAILED")));
    expect_counters({});
}

// ---- whatever the gateway sends -------------------------------------------------------------------------------------

// The fields that a frame may have wrong, one by one and together, with a payload that is whole, cut or missing.
TEST_F(tlsc_cstp, malformed_frames_are_dispatched_by_type_and_length_alone) {
    pretend_tls();
    memcpy(psk_key, "never to be shown", 18);
    uint64_t data = 0, responses = 0, answers = 0, invalid = 0;
    for (const char *magic : {"STF", "\xff\xff\xff"})
        for (int version : {1, 255})
            for (int reserved : {0, 255}) {
                tlsc_log_level = magic[0] == 'S' && version == 1 && reserved == 0 ? LOG_BUF_PRINT : LOG_ERRORS;
                for (int type : {0, 1, 2, 3, 4, 5, 128, 255})
                    for (int announced : {0, 1, 1436, 1437, 1492, 1493, 65535})
                        for (size_t sent : {0, 1, 1492}) {
                            std::string bytes = wire_frame(type, std::string(sent, '\x45'));
                            bytes.replace(0, 3, magic);
                            bytes[3]   = static_cast<char>(version);
                            bytes[4]   = static_cast<char>(announced >> 8);
                            bytes[5]   = static_cast<char>(announced);
                            bytes[7]   = static_cast<char>(reserved);
                            tun_length = -1;
                            ASSERT_EQ(read_bytes(bytes), 1);
                            const int32_t result = tlsc_process_cstp_frame(sock, &frame);
                            ASSERT_EQ(result, type == 0 || type == 4);
                            ASSERT_EQ(tun_length, type == 0 ? announced : -1);
                            data += type == 0;
                            responses += type == 2;
                            answers += type == 4;
                            invalid += type != 0 && type != 2 && type != 4;
                        }
            }
    expect_counters({{"data_pkt_rx", data},
                     {"ctrl_pkt_rx", responses + answers},
                     {"dpd_rsp_rx", answers},
                     {"invalid_rx", invalid}});
    EXPECT_FALSE(log.contains("never to be shown"));
}

TEST_F(tlsc_cstp, reads_of_random_bytes_and_sizes_stay_inside_the_frame) {
    pretend_tls();
    tlsc_log_level = LOG_ERRORS;
    std::mt19937 random(51);
    uint64_t     rounds = 0, data = 0;
    for (; rounds < 1000; ++rounds) {
        std::string bytes(random() % 1600 + 1, '\0');
        for (char &byte : bytes) byte = static_cast<char>(random());
        if (bytes.size() > 6) bytes[6] = static_cast<char>(random() % 6);
        ASSERT_EQ(read_bytes(bytes), 1);
        const uint8_t type = frame.header.type;
        const bool    good = tlsc_process_cstp_frame(sock, &frame) == 1;
        ASSERT_EQ(good, type == 0 || type == 4);
        data += type == 0;
    }
    tlsc_stats stats;
    tlsc_stats_get(&stats);
    EXPECT_EQ(stats.data_pkt_rx, data);
    EXPECT_EQ(stats.data_pkt_rx + stats.ctrl_pkt_rx + stats.invalid_rx, rounds);
}

}  // namespace
