// Contents: 1 command pipe, sending side  2 client initialisation  3 process entry
// The main thread's loop, in main: every 2 seconds it handles what the controller has sent (wlcTlscFifoHandler), and
// every 30th time it sends the statistics. A START comes this way to tlsc_init, and from there to the monitor thread.

#include "tlsc_main.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/prctl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tlsc_config.h"
#include "tlsc_debug.h"
#include "tlsc_transport.h"
#include "tlsc_turn.h"

#include "tlsc_engine.h"   // the command pipe's ends, TLS set-up
#include "tlsc_session.h"  // created at the first initialisation

#include "tlsc_platform.h"  // configuration setters, statistics, clean-up
#include "tlsc_wlc.h"       // the controller interface

// ==== 1 Command pipe, sending side ===============================================================================
// Each command is one write of 36 bytes, which a pipe never mixes with another.

void tlsc_close_cli_pipe() {
    for (std::atomic<int32_t> *end : {&cli_pipe_wr_fd, &cli_pipe_rd_fd}) {
        const int32_t fd = *end;
        if (fd <= 0) continue;
        *end = -1;
        close(fd);
    }
}

int32_t tlsc_create_pipe_for_cli_cmds() {
    tlsc_close_cli_pipe();
    int ends[2];
    if (pipe(ends) != 0) {
        TLSC_ERROR("Could not create pipe fd for comm to server thread");
        return 0;
    }
    for (int end : ends) (void)fcntl(end, F_SETFD, FD_CLOEXEC);  // not for the shell's children

    cli_pipe_rd_fd = ends[0];
    if (tlsc_set_sock_nonblocking(ends[0])) TLSC_INFO("Set non-block flag on CLI pipe read fd:%d success.", ends[0]);
    else TLSC_ERROR("Set non-block flag on CLI pipe read fd:%d failed.", ends[0]);
    cli_pipe_wr_fd = ends[1];
    return 1;
}

namespace {

constexpr int full_pipe_ms = 5000;  // without a client that runs nobody reads it, and the next one drops what it finds

// Waits while the pipe is full, at most that long.
bool has_room(int32_t fd) {
    pollfd ready{fd, POLLOUT, 0};
    return fd < 0 || poll(&ready, 1, full_pipe_ms) != 0;
}

// operation: the sender, which the lines name.
int32_t write_command(const tlsc_cli_cmd &cmd, const char *operation) {
    const tlsc_work_of tlsc_log_function{operation};

    const int32_t fd      = cli_pipe_wr_fd;
    const ssize_t written = has_room(fd) ? write(fd, &cmd, sizeof(cmd)) : 0;
    if (written < 1) {
        TLSC_ERROR("Writing to pipe-fd(%d) failed", fd);
        return 0;
    }
    TLSC_DEBUG("Wrote %d bytes on pipe-fd: %d", static_cast<int>(written), fd);
    return 1;
}

tlsc_cli_cmd make_command(tlsc_cli_cmd_id id, int32_t value) {
    tlsc_cli_cmd cmd{};
    cmd.id    = id;
    cmd.value = value;
    return cmd;
}

int32_t send_command(tlsc_cli_cmd_id id, int32_t value, const char *operation) {
    const tlsc_work_of tlsc_log_function{operation};

    if (!write_command(make_command(id, value), operation)) return 0;
    TLSC_DEBUG("Sent CLI cmd: %d, to child thread", id);
    return 1;
}

}  // namespace

int32_t tlsc_send_exit_client_req() {
    tlsc_transport_cut_waits(true);  // the peer is not waited for until the command is read; the next run waits again
    const int32_t sent = send_command(CLI_CMD_EXIT_CLIENT, 0, __func__);
    if (!sent) tlsc_transport_cut_waits(false);
    return sent;
}

int32_t tlsc_send_log_lvl_chg_req(int32_t level) { return send_command(CLI_CMD_LOG_LEVEL, level, __func__); }

int32_t tlsc_send_log_dest_chg_req(int32_t dest) { return send_command(CLI_CMD_LOG_DEST, dest, __func__); }

int32_t tlsc_send_gw_ip(tlsc_gw_addr gw) {
    tlsc_cli_cmd cmd = make_command(CLI_CMD_GW_IP, gw.kind);
    memcpy(cmd.gw_sockaddr, reinterpret_cast<const uint8_t *>(&gw) + offsetof(tlsc_gw_addr, family),
           sizeof(cmd.gw_sockaddr));
    if (!write_command(cmd, __func__)) return 0;
    TLSC_DEBUG("Sent CLI cmd: %d, to epoll thread", cmd.id);
    return 1;
}

// ==== 2 Client initialisation ====================================================================================

int32_t tlsc_initialized;

namespace {

// Fields that the gateway assigned to an earlier connection.
void clear_assigned_fields(tlsc_config *conf) {
    conf->dns_count       = 0;
    conf->inner_addr.kind = ADDR_NONE;
    conf->cookie[0]       = '\0';
}

constexpr int32_t hold_seconds = 3;

// The record is rewritten only while the tunnel thread keeps away from it. Its work ends by itself.
void hold_tunnel_thread() {
    while (!tlsc_hold_tunnel_thread(hold_seconds)) {}
}

void log_all_settings(const tlsc_config *conf) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_init"};
    TLSC_INFO(
        "\n%s() - svr_addr_ipv4:%s, svr_port:%d, management_ip:%s, tun_interface_name:%s, cipher_algo:%s, tlsc_debug_level:%d, psk_identity:%s, psk_key:%s",
        tlsc_log_function(__func__), conf->svr_addr_ipv4, conf->server_port, conf->management_ip,
        conf->tun_interface_name, conf->cipher_algo, tlsc_log_level.load(), psk_identity, tlsc_masked_psk_key());
}

}  // namespace

int32_t tlsc_init() {
    tlsc_config *conf = tlsc_get_config();

    if (tlsc_initialized) {
        TLSC_INFO("tlsc_init called again... Reading configuration again.");
        tlscWlcSetDebugParams();
        hold_tunnel_thread();
        tlsc_keep_tunnel_settings();
        tlsc_set_config_defaults(conf);
        clear_assigned_fields(conf);
        TLSC_INFO("%s() - Invoking config set APIs", __func__);
        if (!tlsc_set_config_all()) {
            printf("-------- %s() ERROR: Setting the configuration", __func__);
            TLSC_ERROR("-------- %s() ERROR: Setting the configuration", __func__);
        }
        log_all_settings(conf);
        tlsc_resume_tunnel_thread();
        return 1;
    }

    tlsc_log_rotate();
    TLSC_INFO("Initialize tls-client");
    (void)tlsc_create_pipe_for_cli_cmds();  // without it the tunnel runs without commands
    tlscWlcSetDebugParams();
    tlsc_init_openssl();
    tlsc_set_config_defaults(conf);
    clear_assigned_fields(conf);
    conf->device_name[0] = '\0';
    conf->serial_no[0]   = '\0';
    TLSC_INFO("%s() - Invoking config set APIs", __func__);
    if (!tlsc_set_config_all()) printf("-------- %s() ERROR: Setting the configuration", __func__);
    log_all_settings(conf);
    srand(static_cast<unsigned>(time(nullptr)));
    (void)tlsc_init_ssl_config();  // a missing context shows when the first session is made
    (void)tlsc_init_session();
    tlsc_stats_init();
    tlsc_initialized = 1;
    return 1;
}

// ==== 3 Process entry ============================================================================================

namespace {

constexpr timespec poll_interval    = {2, 0};  // between two looks at the controller's messages
constexpr uint32_t ticks_per_report = 30;      // polls between two statistics updates
constexpr int      exit_ordered     = -2;      // the dispatcher's answer to the exit message

// By contract: the exit statuses are the reverse of the usual ones.
constexpr int status_refused  = 0;
constexpr int status_shutdown = 1;

uint32_t stats_ticks;

void stats_tick() {
    if (++stats_ticks % ticks_per_report == 0) (void)tlscWlcPostTlscStatsUpdateMsg();
}

// The daemon takes a descriptor of 0 for none. Started without standard input, it would get 0 for its first file.
void occupy_standard_descriptors() {
    int fd;
    do fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd > STDERR_FILENO) close(fd);
}

}  // namespace

// A DEBUG line, or with the controller interface's debug flag a line on standard output, where the message keeps the
// blank that it begins with.
#define ANNOUNCE(message)                                                                 \
    do {                                                                                  \
        if (tlscWlcIpcEventDbg) {                                                         \
            tlsc_wlc_header(false, tlsc_source_text<tlsc_tree_name(__FILE__)>, __LINE__); \
            tlsc_wlc_message(message);                                                    \
        } else {                                                                          \
            TLSC_DEBUG("%s", &(message)[1]);                                              \
        }                                                                                 \
    } while (0)

int main() {
    tlsc_log_lock_create();
    occupy_standard_descriptors();
    tlsc_log_own_console();
    (void)prctl(PR_SET_DUMPABLE, 0);  // the memory holds the pre-shared key: no core dump, no other user's debugger
    (void)signal(SIGPIPE, SIG_IGN);   // a reader that went away is an error of the write
    (void)umask(077);                 // the log's archive is for root's eyes, as the log is
    if (tlscWlcBootupDbgFlagPresent()) tlscWlcSetBootupDbgFlags(1);
    ANNOUNCE(" In TLS Client process");
    if (getuid() != 0) {
        TLSC_ERROR("Error: The program must be run as ROOT!!");
        printf("\n  TLS Client process - Error: The program must be run as ROOT!!...existing");
        return status_refused;
    }
    if (tlscWlcInit() != 1) TLSC_ERROR("TLS Client Initialization failed");
    ANNOUNCE(" Waiting on FIFO to receive messages");

    for (;;) {
        (void)nanosleep(&poll_interval, nullptr);  // an interrupted sleep is not resumed
        if (wlcTlscFifoHandler() == exit_ordered) break;
        stats_tick();
    }

    TLSC_WARNING("Received TWLC_EXIT command, Exiting TLS Client!!!");
    (void)tlscWlcCleanUp();
    tlsc_cleanup_context();
    tlsc_log_lock_destroy();
    // By contract: this line is written after the lock is gone; nothing else runs by now.
    TLSC_WARNING("Client Shutdown!!");
    printf("Shutting down TLS Client...\n");
    return status_shutdown;
}
