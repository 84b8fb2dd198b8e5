// The session record and its start, with a real TUN interface.

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "capture.h"
#include "kernel_calls.h"
#include "tlsc_session.h"
#include "tlsc_tun_intf.h"
#include "tlsc_utils.h"

namespace {

bool                 heap_is_empty;
std::vector<int32_t> reported_states;
std::vector<int32_t> handled_errors;

}  // namespace

extern "C" {

void *__real_calloc(size_t count, size_t size);
void *__wrap_calloc(size_t count, size_t size) { return heap_is_empty ? nullptr : __real_calloc(count, size); }

int32_t __wrap_tlsc_write_tun_intf_state(int32_t state, int32_t) {
    reported_states.push_back(state);
    return 1;
}

int32_t __wrap_tlsc_error_handling(int32_t error) {
    handled_errors.push_back(error);
    return error;
}

}  // extern "C"

namespace {

tlsc_addr address(const char *text) {
    tlsc_addr record{};
    EXPECT_EQ(tlsc_parse_addr(text, &record), 1);
    return record;
}

bool same_bytes(const tlsc_addr &a, const tlsc_addr &b) { return memcmp(&a, &b, sizeof(a)) == 0; }

std::string pointer_text(const void *pointer) {
    char text[32];
    snprintf(text, sizeof(text), "%p", pointer);
    return text;
}

// A session that is attached to a connection and whose interface exists and is down.
class tlsc_session_start : public ::testing::Test {
protected:
    void SetUp() override {
        reported_states.clear();
        handled_errors.clear();
        forget_kernel_calls();
        session = tlsc_init_session();
        ASSERT_NE(session, nullptr);
        tlsc_attach_session(&sock);
        session->tun_fd = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
        ASSERT_GT(session->tun_fd, 0) << "the clone device is needed";
        log_capture log;
        ASSERT_EQ(tlsc_tun_alloc("tunt", session->tun_fd), 1);
        session->if_name = "tunt";
    }
    void TearDown() override {
        close(session->tun_fd);
        tlsc_free_session();
    }

    tlsc_sock     sock{};
    tlsc_session *session = nullptr;
    tlsc_addr     prefix  = address("10.8.0.0");
};

}  // namespace

// ---- the record -----------------------------------------------------------------------------------------------------

TEST(tlsc_session_record, fresh_session_is_down_without_connection_descriptor_and_name) {
    tlsc_session *session = tlsc_init_session();
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(session->tun_state, 0);
    EXPECT_EQ(session->conn, nullptr);
    EXPECT_EQ(session->tun_fd, -1);
    EXPECT_EQ(session->if_name, nullptr);
    EXPECT_TRUE(same_bytes(session->prefix, tlsc_addr{}));
    tlsc_free_session();
}

TEST(tlsc_session_record, attachment_ties_session_and_connection_together) {
    tlsc_sock     sock{};
    tlsc_session *session = tlsc_init_session();
    tlsc_attach_session(&sock);
    EXPECT_EQ(sock.sess, session);
    EXPECT_EQ(session->conn, &sock);
    tlsc_free_session();
}

TEST(tlsc_session_record, released_session_is_forgotten) {
    tlsc_session elsewhere{};
    tlsc_sock    sock{};
    sock.sess = &elsewhere;
    ASSERT_NE(tlsc_init_session(), nullptr);
    tlsc_free_session();
    tlsc_attach_session(&sock);
    EXPECT_EQ(sock.sess, nullptr);
    tlsc_free_session();  // harmless without a session
}

TEST(tlsc_session_record, attachment_of_a_null_connection_is_refused) {
    log_capture log;
    tlsc_attach_session(nullptr);
    EXPECT_TRUE(log.has("ERROR", "tlsc_session.c", "tlsc_attach_session", "Null ptr received for sock"));
}

TEST(tlsc_session_record, session_without_memory_is_logged_and_null) {
    log_capture log;
    heap_is_empty         = true;
    tlsc_session *session = tlsc_init_session();
    heap_is_empty         = false;
    EXPECT_EQ(session, nullptr);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(log.has("ERROR", "tlsc_session.c", "tlsc_init_session", "Failed allocting memory to tlsc_session"));

    tlsc_sock sock{};
    tlsc_attach_session(&sock);
    EXPECT_EQ(sock.sess, nullptr);
    const tlsc_addr prefix = address("10.8.0.0");
    EXPECT_EQ(tlsc_start_session(&sock, &prefix), nullptr);
    EXPECT_TRUE(log.has("ERROR", "tlsc_session.c", "tlsc_start_session", "Null ptr received for sock->sess"));
}

// ---- the start ------------------------------------------------------------------------------------------------------

TEST_F(tlsc_session_start, start_records_the_prefix_and_brings_the_interface_up) {
    log_capture log;
    EXPECT_EQ(tlsc_start_session(&sock, &prefix), session);
    EXPECT_TRUE(same_bytes(session->prefix, prefix));
    EXPECT_EQ(session->tun_state, 1);
    EXPECT_EQ(reported_states, (std::vector<int32_t>{1}));

    ifreq     record{};
    const int control = tlsc_socket_creation("tunt");
    strcpy(record.ifr_name, "tunt");
    ASSERT_EQ(__real_ioctl(control, SIOCGIFFLAGS, &record), 0);
    close(control);
    EXPECT_NE(record.ifr_flags & IFF_UP, 0);

    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(is_log_line(lines[0], "INFO", "tlsc_session.c", "tlsc_start_session",
                            "Starting TLS session by making tun-intf up"));
    EXPECT_TRUE(is_log_line(lines[1], "DEBUG", "tlsc_tun_intf.c", "tlsc_tun_up", "Interface tunt is successfully up"));
    EXPECT_TRUE(is_log_line(lines[2], "INFO", "tlsc_tun_intf.c", "tlsc_chg_tun_state", "TUN-INTF is UP!!"));
}

TEST_F(tlsc_session_start, second_start_keeps_the_interface_up_reports_nothing_and_replaces_the_prefix) {
    log_capture log;
    ASSERT_EQ(tlsc_start_session(&sock, &prefix), session);
    log.clear();
    const tlsc_addr next = address("10.9.0.0");
    EXPECT_EQ(tlsc_start_session(&sock, &next), session);
    EXPECT_TRUE(same_bytes(session->prefix, next));
    EXPECT_EQ(session->tun_state, 1);
    EXPECT_EQ(reported_states.size(), 1u);
    EXPECT_EQ(log.messages(), (std::vector<std::string>{"Starting TLS session by making tun-intf up"}));
}

TEST_F(tlsc_session_start, start_whose_interface_fails_hands_the_errno_on_and_keeps_the_prefix) {
    ioctl_faults = {{SIOCSIFFLAGS, ENOMEM}};
    log_capture log;
    EXPECT_EQ(tlsc_start_session(&sock, &prefix), nullptr);
    EXPECT_EQ(handled_errors, (std::vector<int32_t>{ENOMEM}));
    EXPECT_TRUE(same_bytes(session->prefix, prefix));
    EXPECT_EQ(session->tun_state, 0);
    EXPECT_EQ(session->if_name, nullptr);
    EXPECT_TRUE(reported_states.empty());
    EXPECT_TRUE(is_log_line(log.lines().back(), "ERROR", "tlsc_session.c", "tlsc_start_session",
                            "Could not make tun-intf up for conn " + pointer_text(&sock)));
}

TEST_F(tlsc_session_start, start_without_an_interface_name_hands_0_on) {
    session->if_name = nullptr;
    log_capture log;
    EXPECT_EQ(tlsc_start_session(&sock, &prefix), nullptr);
    EXPECT_EQ(handled_errors, (std::vector<int32_t>{0}));
    EXPECT_EQ(log.messages(),
              (std::vector<std::string>{"Starting TLS session by making tun-intf up", "Session or ifname is Null",
                                        "Could not make tun-intf up for conn " + pointer_text(&sock)}));
}

TEST_F(tlsc_session_start, start_whose_flags_are_refused_by_eperm_counts_as_up) {
    ioctl_faults = {{SIOCSIFFLAGS, EPERM}};
    log_capture log;
    EXPECT_EQ(tlsc_start_session(&sock, &prefix), session);
    EXPECT_EQ(session->tun_state, 1);
    EXPECT_TRUE(handled_errors.empty());
}

TEST_F(tlsc_session_start, start_refuses_null_arguments) {
    log_capture log;
    EXPECT_EQ(tlsc_start_session(nullptr, &prefix), nullptr);
    EXPECT_EQ(tlsc_start_session(&sock, nullptr), nullptr);
    EXPECT_EQ(log.lines().size(), 2u);
    EXPECT_EQ(log.count("ERROR", "tlsc_session.c", "tlsc_start_session", "Null ptr received for sock/prefix"), 2u);
    EXPECT_TRUE(reported_states.empty());
}
