// The connection context, the kinds of descriptors, the epoll registry and the data-path state.

#include "tunnel_fixture.h"

#include "tlsc_main.h"

namespace {

uint32_t added_events;
int      added_user_data;

}  // namespace

extern "C" int __real_epoll_ctl(int epoll_fd, int operation, int fd, epoll_event *event);
extern "C" int __wrap_epoll_ctl(int epoll_fd, int operation, int fd, epoll_event *event) {
    if (operation == EPOLL_CTL_ADD) {
        added_events    = event->events;
        added_user_data = event->data.fd;
    }
    return __real_epoll_ctl(epoll_fd, operation, fd, event);
}

namespace {

// Looked at before any test has run.
const int8_t    dp_state_at_start = tlsc_dp_state;
const int32_t   epoll_fd_at_start = tlsc_epoll_fd;
const tlsc_sock sock_at_start     = *tlsc_get_sock();

class engine_registry : public tunnel_test {
protected:
    engine_registry() { EXPECT_EQ(pipe(ends), 0); }
    ~engine_registry() override {
        for (int fd : ends) close(fd);
    }
    int ends[2];
};

// ---- context --------------------------------------------------------------------------------------------------------

TEST_F(engine_registry, there_is_one_context_and_all_its_fields_are_zero_at_process_start) {
    EXPECT_EQ(tlsc_get_sock(), tlsc_get_sock());
    EXPECT_EQ(sock_at_start.sockfd, 0);
    EXPECT_EQ(sock_at_start.ssl_up, 0);
    EXPECT_EQ(sock_at_start.ssl, nullptr);
    EXPECT_EQ(sock_at_start.ssl_ctx, nullptr);
    EXPECT_EQ(sock_at_start.sess, nullptr);
    EXPECT_EQ(sock_at_start.svr_port, 0);
    EXPECT_EQ(sock_at_start.ssl_fd, 0);
    EXPECT_EQ(epoll_fd_at_start, -1);
}

TEST_F(engine_registry, the_data_path_is_enabled_at_process_start) { EXPECT_EQ(dp_state_at_start, 1); }

// ---- kinds ----------------------------------------------------------------------------------------------------------

TEST_F(engine_registry, a_descriptor_is_classified_by_the_tls_socket_first_and_the_tun_second) {
    attach_session();
    sock->ssl_fd   = 40;
    session.tun_fd = 41;
    EXPECT_EQ(tlsc_get_fd_type(40, sock), TLSC_FD_SSL);
    EXPECT_EQ(tlsc_get_fd_type(41, sock), TLSC_FD_TUN);
    EXPECT_EQ(tlsc_get_fd_type(42, sock), TLSC_FD_UNKNOWN);
    session.tun_fd = 40;
    EXPECT_EQ(tlsc_get_fd_type(40, sock), TLSC_FD_SSL);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(TLSC_FD_UNKNOWN, 0);
    EXPECT_EQ(TLSC_FD_TUN, 1);
    EXPECT_EQ(TLSC_FD_SSL, 2);
}

TEST_F(engine_registry, the_kind_follows_ssl_fd_and_not_sockfd) {
    sock->sockfd = 40;
    EXPECT_EQ(tlsc_get_fd_type(40, sock), TLSC_FD_UNKNOWN);
}

TEST_F(engine_registry, without_a_session_there_is_no_tun_kind) {
    EXPECT_EQ(tlsc_get_fd_type(41, sock), TLSC_FD_UNKNOWN);
    EXPECT_EQ(log.text(), "");
}

TEST_F(engine_registry, zero_and_negative_descriptors_are_unknown_even_when_they_are_stored) {
    attach_session();
    for (int32_t fd : {0, -1, INT32_MIN}) {
        sock->ssl_fd   = fd;
        session.tun_fd = fd;
        EXPECT_EQ(tlsc_get_fd_type(fd, sock), TLSC_FD_UNKNOWN);
        EXPECT_TRUE(
            log.has("ERROR", engine_file, "tlsc_get_fd_type",
                    text_of("FD is zero/negative value, or sock ptr is NULL. Return unknown-fd for fd = %d", fd)));
    }
    EXPECT_EQ(tlsc_get_fd_type(5, nullptr), TLSC_FD_UNKNOWN);
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_get_fd_type",
                        "FD is zero/negative value, or sock ptr is NULL. Return unknown-fd for fd = 5"));
}

// ---- epoll ----------------------------------------------------------------------------------------------------------

TEST_F(engine_registry, a_descriptor_is_registered_for_input_and_peer_hang_up) {
    open_epoll();
    EXPECT_EQ(tlsc_add_fd_to_epoll(tlsc_epoll_fd, ends[0]), 1);
    EXPECT_EQ(added_events, 0x2001u);
    EXPECT_EQ(added_user_data, ends[0]);
    EXPECT_TRUE(log.has("DEBUG", engine_file, "tlsc_add_fd_to_epoll",
                        text_of("Successfully added fd = %d, to epoll-event", ends[0])));

    ASSERT_EQ(write(ends[1], "xy", 2), 2);
    epoll_event event{};
    for (int i = 0; i < 2; ++i) {  // level-triggered
        ASSERT_EQ(epoll_wait(tlsc_epoll_fd, &event, 1, 0), 1);
        EXPECT_EQ(event.data.fd, ends[0]);
    }
}

TEST_F(engine_registry, a_failed_registration_is_logged_with_its_errno) {
    open_epoll();
    EXPECT_EQ(tlsc_add_fd_to_epoll(tlsc_epoll_fd, ends[0]), 1);
    EXPECT_EQ(tlsc_add_fd_to_epoll(tlsc_epoll_fd, ends[0]), 0);
    EXPECT_TRUE(
        log.has("ERROR", engine_file, "tlsc_add_fd_to_epoll",
                text_of("Could not add fd %d to epoll-event(fd = %d). errno = %d", ends[0], tlsc_epoll_fd, EEXIST)));
    EXPECT_EQ(tlsc_add_fd_to_epoll(-1, ends[0]), 0);
    EXPECT_TRUE(log.contains(text_of("Could not add fd %d to epoll-event(fd = -1). errno = %d", ends[0], EBADF)));
}

TEST_F(engine_registry, a_descriptor_is_removed_and_a_failed_removal_logged) {
    open_epoll();
    ASSERT_EQ(tlsc_add_fd_to_epoll(tlsc_epoll_fd, ends[0]), 1);
    EXPECT_EQ(tlsc_delete_fd_from_epoll(tlsc_epoll_fd, ends[0]), 1);
    EXPECT_TRUE(log.has("DEBUG", engine_file, "tlsc_delete_fd_from_epoll",
                        text_of("Successfully deleted fd = %d, to epoll-event", ends[0])));
    EXPECT_EQ(tlsc_delete_fd_from_epoll(tlsc_epoll_fd, ends[0]), 0);
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_delete_fd_from_epoll",
                        text_of("Could not delete fd = %d, from epoll-event. Errno = %d", ends[0], ENOENT)));
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    epoll_event event{};
    EXPECT_EQ(epoll_wait(tlsc_epoll_fd, &event, 1, 0), 0);
}

// ---- data-path state ------------------------------------------------------------------------------------------------

TEST_F(engine_registry, requesting_the_current_state_warns_and_writes_nothing) {
    ASSERT_EQ(tlsc_create_pipe_for_cli_cmds(), 1);
    log.clear();
    for (int8_t state : {0, 1}) {
        tlsc_dp_state = state;
        tlsc_set_dp_state(state);
        EXPECT_TRUE(log.has("WARNING", engine_file, "tlsc_set_dp_state",
                            text_of("Invalid DP state change req received. State already [%d].", state)));
    }
    char byte;
    EXPECT_LT(read(cli_pipe_rd_fd, &byte, 1), 0);
    tlsc_close_cli_pipe();
}

TEST_F(engine_registry, requesting_another_state_writes_one_byte_changes_nothing_and_logs_an_error) {
    ASSERT_EQ(tlsc_create_pipe_for_cli_cmds(), 1);
    tlsc_dp_state = 1;
    tlsc_set_dp_state(0);
    EXPECT_EQ(tlsc_dp_state, 1);
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_set_dp_state", "DP state changed. Old state [1], new state [0]."));
    char bytes[40];
    ASSERT_EQ(read(cli_pipe_rd_fd, bytes, sizeof(bytes)), 1);
    EXPECT_EQ(bytes[0], 0);
    tlsc_dp_state = 0;
    tlsc_set_dp_state(1);
    EXPECT_EQ(tlsc_dp_state, 0);
    ASSERT_EQ(read(cli_pipe_rd_fd, bytes, sizeof(bytes)), 1);
    EXPECT_EQ(bytes[0], 1);
    tlsc_close_cli_pipe();
}

TEST_F(engine_registry, a_state_that_cannot_be_written_changes_nothing_either_and_prints_no_other_line) {
    ASSERT_EQ(cli_pipe_wr_fd, -1);
    tlsc_set_dp_state(0);
    EXPECT_EQ(tlsc_dp_state, 1);
    EXPECT_EQ(lines_from(engine_file),
              (std::vector<std::string>{"ERROR tlsc_set_dp_state: DP state changed. Old state [1], new state [0]."}));
}

}  // namespace
