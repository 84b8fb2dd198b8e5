// One connection that is authenticated by certificates, made by the daemon's own modules. The controller can only ask
// for pre-shared keys, so the settings come from "tls_client_config.txt" in the working directory.
//
//   certificate_client [FILE]
//
// FILE is removed before the connection: the loader and the set-up insist on files that exist. Each step prints its
// name and its result on a line of its own; behind a step that fails comes the clean-up, and what it left open. The log
// goes to its usual place. Exit status 0.

#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include "tlsc_config.h"
#include "tlsc_cstp.h"
#include "tlsc_debug.h"
#include "tlsc_engine.h"
#include "tlsc_platform.h"
#include "tlsc_session.h"
#include "tlsc_timer.h"
#include "tlsc_tun_intf.h"

// The pause behind the handshake.
extern "C" unsigned __wrap_sleep(unsigned seconds) {
    printf("pause %u\n", seconds);
    return 0;
}

namespace {

int32_t show(const char *step, int32_t result) {
    printf("%s %d\n", step, result);
    return result;
}

int32_t open_descriptors() {
    int32_t count = 0;
    for (int fd = 0; fd < 256; ++fd) count += fcntl(fd, F_GETFD) >= 0;
    return count;
}

int32_t load_settings() {
    tlsc_config *conf = tlsc_get_config();
    tlsc_set_config_defaults(conf);
    return show("load", tlsc_read_config_file(conf));
}

// What the tunnel thread has before it connects: epoll for the timers, and the interface for the response to bring up.
bool make_interface() {
    tlsc_epoll_fd         = epoll_create1(EPOLL_CLOEXEC);
    tlsc_session *session = tlsc_init_session();
    tlsc_attach_session(tlsc_get_sock());
    session->tun_fd = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    return show("interface", tlsc_create_tun(session)) == 1 &&
           tlsc_add_fd_to_epoll(tlsc_epoll_fd, session->tun_fd) == 1;
}

// The response to the request that the connection has sent.
void exchange_configuration() {
    tlsc_sock      *sock = tlsc_get_sock();
    tlsc_cstp_frame frame{};
    if (show("read", tlsc_cstp_read_frame(sock, &frame)) != TLSC_SSL_OK) return;
    if (!show("response", tlsc_process_cstp_frame(sock, &frame))) return;
    show("tunnel", sock->sess->tun_state);
    char address[INET_ADDRSTRLEN] = "";
    (void)inet_ntop(AF_INET, tlsc_get_config()->inner_addr.ipv4, address, sizeof(address));
    printf("inner %s\n", address);
}

void run(const char *doomed) {
    if (!load_settings()) return;
    if (!show("context", tlsc_init_ssl_config())) return;
    if (doomed && !show("removed", unlink(doomed) == 0)) return;
    if (!make_interface()) return;
    show("connect", tlsc_create_tcp_conn());
    show("up", tlsc_get_sock()->ssl_up);
    show("backoff", tlsc_timers.backoff > 0);
    if (tlsc_get_sock()->ssl_up) exchange_configuration();
}

// What the tunnel thread does at its end and the process behind it.
void clean_up() {
    tlsc_sock *sock = tlsc_get_sock();
    if (sock->sess) tlsc_tun_delete(sock->sess, TLSC_DOWN_NO_ERROR);
    tlsc_stop_all_timers();
    if (tlsc_epoll_fd > 0) close(tlsc_epoll_fd);
    tlsc_cleanup_context();
}

}  // namespace

int main(int argc, char **argv) {
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    (void)signal(SIGPIPE, SIG_IGN);
    tlsc_log_lock_create();
    tlsc_log_level = LOG_DEBUG;  // for the loader's own lines; the file sets what holds from there on
    tlsc_log_rotate();
    tlsc_init_openssl();
    tlsc_stats_init();
    const int32_t before = open_descriptors();
    run(argc > 1 ? argv[1] : nullptr);
    clean_up();
    show("left_open", open_descriptors() - before);
    tlsc_log_lock_destroy();
    return 0;
}
