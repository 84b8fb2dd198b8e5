// Contents: 1 client start and stop, monitor thread  2 clean-up  3 command-pipe wrappers  4 configuration setters
//           5 upward notifications  6 statistics
// Life of the client: tlsc_init (main) -> tlsc_start_epoll_mon_thread -> monitor thread -> tlsc_start_client
//                     -> tunnel thread -> joined by the monitor -> started again, or the end of both

#include "tlsc_platform.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include "tlsc_openssl.h"

#include "tlsc_config.h"
#include "tlsc_debug.h"
#include "tlsc_turn.h"
#include "tlsc_utils.h"

#include "tlsc_engine.h"    // the tunnel thread and its mailbox
#include "tlsc_session.h"   // released at clean-up
#include "tlsc_tun_intf.h"  // deleted at clean-up

#include "tlsc_main.h"  // command-pipe senders, the mark of the initialisation
#include "tlsc_wlc.h"   // reports to the controller, its parameter block

// ==== 1 Client start and stop, monitor thread ====================================================================
// At most one monitor thread and one tunnel thread live at any time. Invariants, changed under monitor_lock (but for
// the tunnel thread, which sets stop_posted when it ends itself):
// - monitor_alive: the monitor thread exists and has not yet decided to end.
// - stop_posted: the running tunnel thread was told to end, and has not dropped the order.
// - stop_dropped: it has, since the order came before it served its pipe; it goes on.
// - run_wanted: a start came after that stop; the monitor runs the client once more instead of ending.

namespace {

constexpr unsigned start_pause_seconds = 1;   // between the first start of the tunnel thread and the wait for its end
constexpr unsigned retry_pause_seconds = 10;  // before a tunnel thread that ended abnormally is started again

std::mutex        monitor_lock;
bool              monitor_alive;
std::atomic<bool> stop_posted{false};
bool              stop_dropped;
bool              run_wanted;

const pthread_t no_thread = static_cast<pthread_t>(-1);

// The monitor thread's own while there is one, else the main thread's.
pthread_t epoll_thread    = no_thread;
bool      tunnel_unjoined = false;  // epoll_thread names a thread to join
sem_t     tunnel_ended;             // posted by the tunnel thread as its last act

// The main thread's own.
pthread_t epoll_mon_thread = no_thread;
bool      monitor_unjoined = false;  // epoll_mon_thread names a thread to join

void note_stop() {
    const std::lock_guard<std::mutex> guard(monitor_lock);
    stop_posted = true;
    run_wanted  = false;
}

// Whatever waits in the pipe is for an earlier run: the next one drops it.
void forget_orders() {
    stop_posted  = false;
    stop_dropped = false;
    run_wanted   = false;
}

void note_run() {
    const std::lock_guard<std::mutex> guard(monitor_lock);
    forget_orders();
}

// The monitor's decision behind an orderly end: another run when one is wanted, else its own end.
bool begin_wanted_run() {
    const std::lock_guard<std::mutex> guard(monitor_lock);
    const bool                        again = run_wanted;
    forget_orders();
    monitor_alive = again;
    return again;
}

enum class start_answer {
    begin,
    nothing,
    next_run,
    end_and_next_run
};

// What a start finds. The monitor that lives needs nothing, or begins the next run when this one has ended.
start_answer note_start() {
    const std::lock_guard<std::mutex> guard(monitor_lock);
    if (!monitor_alive) {
        forget_orders();
        monitor_alive = true;
        return start_answer::begin;
    }
    if (!stop_posted && !stop_dropped) return start_answer::nothing;
    const bool must_end = !stop_posted;
    stop_posted         = true;
    stop_dropped        = false;
    run_wanted          = true;
    return must_end ? start_answer::end_and_next_run : start_answer::next_run;
}

void note_no_monitor() {
    const std::lock_guard<std::mutex> guard(monitor_lock);
    forget_orders();
    monitor_alive = false;
}

// The monitor can be cancelled only while it waits here, never while it holds a lock.
void cancellable_sleep(unsigned seconds) {
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    sleep(seconds);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}

// The wait is not in the join itself: the thread sanitizer loses track of a thread that is cancelled there.
void join_tunnel() {
    if (!tunnel_unjoined) return;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    while (sem_wait(&tunnel_ended) != 0) {}  // a signal may interrupt it
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    pthread_join(epoll_thread, nullptr);
    tunnel_unjoined = false;
}

void *run_tunnel(void *) {
    (void)tlsc_start_epoll(nullptr);
    sem_post(&tunnel_ended);
    return nullptr;
}

void join_monitor() {
    if (!monitor_unjoined) return;
    pthread_join(epoll_mon_thread, nullptr);
    monitor_unjoined = false;
}

void cancel_monitor() {
    if (monitor_unjoined) pthread_cancel(epoll_mon_thread);
    join_monitor();
    epoll_mon_thread = no_thread;
    note_no_monitor();
}

constexpr int32_t hold_seconds = 1;  // for a tunnel thread that works; it connects or waits the rest of its time

constexpr timespec connecting_moment = {0, 1000000};  // it is only about to connect

// A tunnel thread that connects would read the order to end only behind the attempt.
void end_connection_attempt() {
    for (bool again = true; again;) {
        if (!tlsc_hold_tunnel_thread(hold_seconds)) return;
        again = !tlsc_interrupt_connecting();
        tlsc_resume_tunnel_thread();
        if (again) (void)nanosleep(&connecting_moment, nullptr);
    }
}

}  // namespace

int32_t tlsc_start_client() {
    TLSC_INFO("Starting epoll thread");
    join_tunnel();  // one that outlived a clean-up
    epoll_thread_exited = 0;
    sem_init(&tunnel_ended, 0, 0);
    const int ret = pthread_create(&epoll_thread, nullptr, run_tunnel, nullptr);
    if (ret != 0) {
        TLSC_ERROR("epollthread creation failed, ret:%d", ret);
        epoll_thread = no_thread;
        return 0;
    }
    tunnel_unjoined = true;
    TLSC_INFO("Started the epoll thread, wait for thread to be up..");
    return 1;
}

int32_t tlsc_stop_client() {
    TLSC_INFO("Posting message to stop TLS Client...");
    note_stop();
    const int32_t posted = tlsc_send_exit_client_req();
    if (!posted) printf("Failed to post a msg to stop the TLS Client");
    end_connection_attempt();
    return posted;
}

void *tlsc_epoll_mon_thread(void *) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    TLSC_INFO("In TLS Client epoll monitor thread");
    (void)tlsc_start_client();
    cancellable_sleep(start_pause_seconds);
    join_tunnel();
    while (epoll_thread_exited == 0 || begin_wanted_run()) {
        if (epoll_thread_exited == 0) {
            TLSC_WARNING("TLSC Client exited abnormally");
            TLSC_INFO("Retrying tlsc-start-client after sleep %d", static_cast<int>(retry_pause_seconds));
            cancellable_sleep(retry_pause_seconds);
            note_run();
        }
        (void)tlsc_start_client();
        join_tunnel();
    }
    TLSC_WARNING("epoll monitor thread exiting!!");
    return nullptr;
}

int32_t tlsc_start_epoll_mon_thread() {
    const start_answer answer = note_start();
    if (answer == start_answer::begin) {
        join_monitor();  // it has ended
        const int ret = pthread_create(&epoll_mon_thread, nullptr, tlsc_epoll_mon_thread, nullptr);
        if (ret != 0) {
            TLSC_ERROR("epoll monitor thread creation failed,ret:%d ", ret);
            epoll_mon_thread = no_thread;
            note_no_monitor();
            return 0;
        }
        monitor_unjoined = true;
    }
    if (answer == start_answer::end_and_next_run) (void)tlsc_send_exit_client_req();
    TLSC_INFO("Started the epoll monitor thread successfully");
    return 1;
}

// A run that a start behind the order has met this early does for the one that was wanted: it has used no setting yet.
void tlsc_note_dropped_exit() {
    const std::lock_guard<std::mutex> guard(monitor_lock);
    stop_dropped = stop_dropped || (stop_posted && !run_wanted);
    stop_posted  = false;
    run_wanted   = false;
}

void tlsc_restart_client() {
    TLSC_DEBUG("Main function should kill the child thread\n");
    stop_posted = true;
    exit_client = 1;
}

// ==== 2 Clean-up =================================================================================================

namespace {

constexpr int32_t halt_seconds = 3;  // for a tunnel thread that works

void release_connection() {
    tlsc_sock *sock = tlsc_get_sock();

    if (sock->sess) tlsc_tun_delete(sock->sess, TLSC_DOWN_NO_ERROR);
    sock->sess = nullptr;
    tlsc_free_session();
    tlsc_ssl_cleanup(sock->ssl);
    sock->ssl = nullptr;
}

void release_openssl() {
    OBJ_cleanup();
    EVP_cleanup();
    ENGINE_cleanup();
    CRYPTO_cleanup_all_ex_data();
    ERR_remove_thread_state(nullptr);
    ERR_free_strings();
}

void release_ssl_ctx() {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_cleanup_context"};

    if (!tlsc_ssl_ctx) return;
    TLSC_DEBUG("Freeing up SSL-ctx");
    SSL_CTX_free(tlsc_ssl_ctx);
    tlsc_ssl_ctx             = nullptr;
    tlsc_get_sock()->ssl_ctx = nullptr;
}

void release_client() {
    release_connection();
    release_openssl();
    release_ssl_ctx();
    tlsc_destroy_locks();
    OPENSSL_cleanse(psk_identity, psk_identity_size);
    OPENSSL_cleanse(psk_key, psk_key_size);
    tlsc_stats_destroy();
}

// It stands at a safepoint, in a system call that can be cancelled or at the gate, or is no more. Whatever a run has of
// its own goes behind it, so that the next one begins as in a new process.
void end_halted_tunnel() {
    if (tunnel_unjoined) pthread_cancel(epoll_thread);
    tlsc_retire_tunnel_thread();
    if (tunnel_unjoined) pthread_join(epoll_thread, nullptr);
    tunnel_unjoined = false;
    epoll_thread    = no_thread;
    tlsc_release_run();
    tlsc_resume_tunnel_thread();
}

}  // namespace

void tlsc_cleanup_context() {
    const bool halted = tlsc_halt_tunnel_thread(halt_seconds, tlsc_interrupt_transport);

    tlsc_close_cli_pipe();
    TLSC_WARNING("Cleaning up Tls-session and SSL context");
    // What a tunnel thread still works with is left to it; it is told to end.
    if (halted) release_client();
    else tlsc_stats_clear();
    cancel_monitor();
    if (halted) end_halted_tunnel();
    else exit_client = 1;
    tlsc_initialized = 0;
}

// ==== 3 Command-pipe wrappers ====================================================================================

void tlsc_post_log_level(int32_t level) {
    if (!tlsc_send_log_lvl_chg_req(level)) printf("Failed to send log-level-chg req to TLS Client");
}

void tlsc_post_log_dest(int32_t dest) {
    if (!tlsc_send_log_dest_chg_req(dest)) printf("Failed to send log-dest-chg req to TLS Client");
}

int32_t tlsc_post_gw_ip(tlsc_gw_addr gw) { return tlsc_send_gw_ip(gw); }

int32_t tlsc_request_gw_name_resolution() { return tlscWlcMsgSendTlsGwFqdnResolveReq(); }

// ==== 4 Configuration setters ====================================================================================
// Look-alikes on purpose: each prints its own name, and four of them begin their null message with a line end.

int32_t tlsc_set_config_server_ip_port(const char *address, int port) {
    if (!address) {
        TLSC_ERROR("%s() - Input parm NULL", __func__);
        return -1;
    }
    tlsc_config *conf = tlsc_get_config();
    tlsc_copy_text(conf->svr_addr_ipv4, sizeof(conf->svr_addr_ipv4), address);
    conf->server_port = static_cast<uint16_t>(port);
    TLSC_INFO("%s() - server_ip:%s, server_port:%d", __func__, conf->svr_addr_ipv4, conf->server_port);
    return 0;
}

int32_t tlsc_set_config_inner_ip(const char *address) {
    if (!address) {
        TLSC_ERROR("%s() - Input parm NULL", __func__);
        return -1;
    }
    return 0;
}

int32_t tlsc_set_config_management_ip(const char *address) {
    if (!address) {
        TLSC_ERROR("%s() - Input parm NULL", __func__);
        return -1;
    }
    tlsc_config *conf = tlsc_get_config();
    tlsc_copy_text(conf->management_ip, sizeof(conf->management_ip), address);
    TLSC_INFO("%s() - mgmt_ip:%s", __func__, conf->management_ip);
    return 0;
}

int32_t tlsc_set_config_tun_interface_name(const char *name) {
    if (!name) {
        TLSC_ERROR("%s() - Input parm NULL", __func__);
        return -1;
    }
    tlsc_config *conf = tlsc_get_config();
    tlsc_copy_text(conf->tun_interface_name, sizeof(conf->tun_interface_name), name);
    TLSC_INFO("%s() - tun_interface_name:%s", __func__, conf->tun_interface_name);
    return 0;
}

int32_t tlsc_set_config_tun_cipher_algo(const char *cipher_list) {
    if (!cipher_list) {
        TLSC_ERROR("\n%s() - Input parm NULL", __func__);
        return -1;
    }
    tlsc_config *conf = tlsc_get_config();
    tlsc_copy_text(conf->cipher_algo, sizeof(conf->cipher_algo), cipher_list);
    TLSC_INFO("%s() - cipher_algo:%s", __func__, conf->cipher_algo);
    return 0;
}

int32_t tlsc_set_config_log_level(const char *word) {
    if (!word) {
        TLSC_ERROR("%s() - Input parm NULL", __func__);
        return -1;
    }
    if (strncmp(word, "true", 4) == 0) {
        tlsc_log_level = LOG_WARNINGS;
    } else if (strncmp(word, "false", 5) == 0) {
        tlsc_log_level = LOG_ERRORS;
    } else {
        TLSC_INFO("Invalid value for param log_level in cfg file");
        TLSC_INFO("Setting log_level as false");
        tlsc_log_level = LOG_ERRORS;
    }
    TLSC_INFO("%s() - log_level:%d", __func__, tlsc_log_level.load());
    return 0;
}

int32_t tlsc_set_config_psk_identify(const char *identity) {
    if (!identity) {
        TLSC_ERROR("%s() - Input parm NULL", __func__);
        return -1;
    }
    tlsc_copy_text(psk_identity, sizeof(psk_identity), identity);
    TLSC_INFO("%s() - psk_identity:%s", __func__, psk_identity);
    return 0;
}

int32_t tlsc_set_config_psk_key(const char *key) {
    if (!key) {
        TLSC_ERROR("%s() - Input parm NULL", __func__);
        return -1;
    }
    tlsc_copy_text(psk_key, sizeof(psk_key), key);
    TLSC_INFO("%s() - psk_key:%s", __func__, tlsc_masked_psk_key());
    return 0;
}

int32_t tlsc_set_config_device_id(const char *id) {
    if (!id) {
        TLSC_ERROR("\n%s() - Input parm NULL", __func__);
        return -1;
    }
    tlsc_config *conf = tlsc_get_config();
    tlsc_copy_text(conf->device_id, sizeof(conf->device_id), id);
    TLSC_INFO("%s() - device_id:%s", __func__, conf->device_id);
    return 0;
}

int32_t tlsc_set_config_serial_num(const char *serial) {
    if (!serial) {
        TLSC_ERROR("\n%s() - Input parm NULL", __func__);
        return -1;
    }
    tlsc_config *conf = tlsc_get_config();
    tlsc_copy_text(conf->serial_no, sizeof(conf->serial_no), serial);
    TLSC_INFO("%s() - serial_no:%s", __func__, conf->serial_no);
    return 0;
}

int32_t tlsc_set_config_device_name(const char *name) {
    if (!name) {
        TLSC_ERROR("\n%s() - Input parm NULL", __func__);
        return -1;
    }
    tlsc_config *conf = tlsc_get_config();
    tlsc_copy_text(conf->device_name, sizeof(conf->device_name), name);
    TLSC_INFO("%s() - device_name:%s", __func__, conf->device_name);
    return 0;
}

// By contract: the line names PSK whatever the mechanism is.
int32_t tlsc_set_config_ssl_auth_mech(int32_t mechanism) {
    tlsc_get_config()->ssl_auth_mech = mechanism;
    TLSC_DEBUG("SSL auth-mech set to PSK");
    return 0;
}

int32_t tlsc_set_config_all() {
    TLSC_INFO("%s() - setting all config for TLS Client", __func__);
    (void)tlsc_set_config_server_ip_port(tlscWlcGetServerIpAddress(), tlscWlcGetServerPort());
    (void)tlsc_set_config_management_ip(tlscWlcGetManagementIp());
    (void)tlsc_set_config_device_id(tlscWlcGetDeviceId());
    (void)tlsc_set_config_tun_interface_name(tlscWlcGetTunInterfaceName());
    (void)tlsc_set_config_tun_cipher_algo(tlscWlcGetCipherAlgo());
    (void)tlsc_set_config_psk_identify(tlscWlcGetPskIdentity());
    (void)tlsc_set_config_psk_key(tlscWlcGetPskKey());
    (void)tlsc_set_config_serial_num(tlscWlcGetSerialNum());
    (void)tlsc_set_config_device_name(tlscWlcGetSystemName());
    (void)tlsc_set_config_ssl_auth_mech(SSL_AUTH_PSK);
    return 1;
}

// ==== 5 Upward notifications =====================================================================================

namespace {

// What was reported last; kept for a look from a debugger or a core file.
int32_t   last_tun_state;
int32_t   last_tun_cause;
tlsc_addr last_inner_addr;

}  // namespace

int32_t tlsc_write_tun_intf_state(int32_t state, int32_t cause) {
    last_tun_state = state;
    last_tun_cause = cause;
    TLSC_INFO("TUN State changed to %d, error cause:%d", last_tun_state, last_tun_cause);
    return tlscWlcSetTunState(state, cause);
}

int32_t tlsc_write_dns_ip(tlsc_dns_list list) {
    TLSC_DEBUG("No. of DNS server %d\n", list.count);
    for (int i = 0; i < list.count && i < max_dns_servers; ++i) {
        char text[INET_ADDRSTRLEN];
        if (list.servers[i].kind != ADDR_IPV4) continue;
        if (inet_ntop(AF_INET, list.servers[i].ipv4, text, sizeof(text))) TLSC_DEBUG("%d: %s\n", i, text);
    }
    return tlscWlcPostCloudDnsSvrInfoUpdateMsg(&list);
}

int32_t tlsc_write_inner_ip(tlsc_addr addr) {
    char text[addr_text_size] = "";

    last_inner_addr = addr;
    (void)inet_ntop(AF_INET, last_inner_addr.ipv4, text, sizeof(text));
    TLSC_INFO("Client inner IP received %s", text);
    return tlscWlcPostInnerIpUpdateMsg(text);
}

// ==== 6 Statistics ===============================================================================================
// Counters are single words that the tunnel thread increments without the lock; the lock guards the snapshot and the
// clear against each other.

tlsc_stats tlsc_stats_record;

namespace {

constexpr pthread_mutex_t usable_lock = PTHREAD_MUTEX_INITIALIZER;

pthread_mutex_t stats_lock = usable_lock;  // before the client is initialised, and after it was destroyed

struct labelled_counter {
    const char *label;
    uint64_t tlsc_stats::*counter;
};

constexpr uint64_t tlsc_stats::*all_counters[stats_counters] = {
    &tlsc_stats::data_pkt_rx,
    &tlsc_stats::data_pkt_tx,
    &tlsc_stats::ctrl_pkt_rx,
    &tlsc_stats::ctrl_pkt_tx,
    &tlsc_stats::invalid_rx,
    &tlsc_stats::tun_pkt_rx,
    &tlsc_stats::tun_pkt_tx,
    &tlsc_stats::dpd_req_tx,
    &tlsc_stats::dpd_rsp_rx,
    &tlsc_stats::rekey_attempts,
    &tlsc_stats::rekey_success,
    &tlsc_stats::tun_alloc,
    &tlsc_stats::tun_freed,
    &tlsc_stats::ssl_read_errors_total,
    &tlsc_stats::ssl_read_errors_readwouldblock,
    &tlsc_stats::ssl_read_errors_writewouldblock,
    &tlsc_stats::ssl_read_errors_others,
    &tlsc_stats::ssl_write_errors_total,
    &tlsc_stats::ssl_write_errors_readwouldblock,
    &tlsc_stats::ssl_write_errors_writewouldblock,
    &tlsc_stats::ssl_write_errors_others,
    &tlsc_stats::tun_read_errors_total,
    &tlsc_stats::tun_read_errors_einval,
    &tlsc_stats::tun_read_errors_ebadf,
    &tlsc_stats::tun_read_errors_efault,
    &tlsc_stats::tun_read_errors_others,
    &tlsc_stats::tun_write_errors_total,
    &tlsc_stats::tun_write_errors_einval,
    &tlsc_stats::tun_write_errors_ebadf,
    &tlsc_stats::tun_write_errors_efault,
    &tlsc_stats::tun_write_errors_others,
};

constexpr labelled_counter ssl_read_counters[] = {
    {"ssl_read_errors_total", &tlsc_stats::ssl_read_errors_total},
    {"ssl_read_errors_READWOULDBLOCK", &tlsc_stats::ssl_read_errors_readwouldblock},
    {"ssl_read_errors_WRITEWOULDBLOCK", &tlsc_stats::ssl_read_errors_writewouldblock},
    {"ssl_read_errors_others", &tlsc_stats::ssl_read_errors_others},
};
constexpr labelled_counter ssl_write_counters[] = {
    {"ssl_write_errors_total", &tlsc_stats::ssl_write_errors_total},
    {"ssl_write_errors_READWOULDBLOCK", &tlsc_stats::ssl_write_errors_readwouldblock},
    {"ssl_write_errors_WRITEWOULDBLOCK", &tlsc_stats::ssl_write_errors_writewouldblock},
    {"ssl_write_errors_others", &tlsc_stats::ssl_write_errors_others},
};
constexpr labelled_counter tun_read_counters[] = {
    {"tun_read_errors_total", &tlsc_stats::tun_read_errors_total},
    {"tun_read_errors_EINVAL", &tlsc_stats::tun_read_errors_einval},
    {"tun_read_errors_EBADF", &tlsc_stats::tun_read_errors_ebadf},
    {"tun_read_errors_EFAULT", &tlsc_stats::tun_read_errors_efault},
    {"tun_read_errors_others", &tlsc_stats::tun_read_errors_others},
};
constexpr labelled_counter tun_write_counters[] = {
    {"tun_write_errors_total", &tlsc_stats::tun_write_errors_total},
    {"tun_write_errors_EINVAL", &tlsc_stats::tun_write_errors_einval},
    {"tun_write_errors_EBADF", &tlsc_stats::tun_write_errors_ebadf},
    {"tun_write_errors_EFAULT", &tlsc_stats::tun_write_errors_efault},
    {"tun_write_errors_others", &tlsc_stats::tun_write_errors_others},
};

void zero_counters() {
    for (auto counter : all_counters)
        std::atomic_ref<uint64_t>(tlsc_stats_record.*counter).store(0, std::memory_order_relaxed);
}

void print_heading(const char *heading) {
    puts(heading);
    puts("===========");
}

template <size_t N>
void print_counters(const tlsc_stats &stats, const labelled_counter (&counters)[N]) {
    for (const labelled_counter &entry : counters)
        printf("%s: %llu\n", entry.label, static_cast<unsigned long long>(stats.*entry.counter));
}

}  // namespace

void tlsc_stats_init() {
    pthread_mutex_init(&stats_lock, nullptr);
    pthread_mutex_lock(&stats_lock);
    zero_counters();
    pthread_mutex_unlock(&stats_lock);
}

void tlsc_stats_get(tlsc_stats *out) {
    if (!out) {
        TLSC_ERROR("Null ptr received for stats");
        return;
    }

    pthread_mutex_lock(&stats_lock);
    for (auto counter : all_counters)
        out->*counter = std::atomic_ref<uint64_t>(tlsc_stats_record.*counter).load(std::memory_order_relaxed);
    pthread_mutex_unlock(&stats_lock);
}

void tlsc_stats_clear() {
    pthread_mutex_lock(&stats_lock);
    zero_counters();
    pthread_mutex_unlock(&stats_lock);
}

void tlsc_stats_destroy() {
    tlsc_stats_clear();
    (void)pthread_mutex_destroy(&stats_lock);
    stats_lock = usable_lock;  // for a late report, another clean-up
}

void tlsc_stats_print() {
    tlsc_stats stats;
    tlsc_stats_get(&stats);
    auto value = [&stats](uint64_t tlsc_stats::*counter) { return static_cast<unsigned long long>(stats.*counter); };

    print_heading("CSTP STATS:");
    printf("Invalid Rx: %llu\n", value(&tlsc_stats::invalid_rx));
    printf("Data Pkt Tx: %llu    Data Pkt Rx: %llu\n", value(&tlsc_stats::data_pkt_tx),
           value(&tlsc_stats::data_pkt_rx));
    printf("Ctrl Pkt Tx: %llu    Ctrl Pkt Rx: %llu\n", value(&tlsc_stats::ctrl_pkt_tx),
           value(&tlsc_stats::ctrl_pkt_rx));
    print_heading("TUN STATS:");
    printf("Tun Pkt Tx: %llu    Tun Pkt Rx: %llu\n", value(&tlsc_stats::tun_pkt_tx), value(&tlsc_stats::tun_pkt_rx));
    print_heading("DPD STATS:");
    printf("DPD Req Tx: %llu    DPD Rsp Rx: %llu\n", value(&tlsc_stats::dpd_req_tx), value(&tlsc_stats::dpd_rsp_rx));
    print_heading("ReKey STATS:");
    printf("Rekey Attempts: %llu    Rekey Success: %llu\n", value(&tlsc_stats::rekey_attempts),
           value(&tlsc_stats::rekey_success));
    print_heading("SSL READ STATS:");
    print_counters(stats, ssl_read_counters);
    print_heading("SSL WRITE STATS:");
    print_counters(stats, ssl_write_counters);
    print_heading("TUN STATS:");
    printf("tun_alloc: %llu  tun_freed: %llu\n", value(&tlsc_stats::tun_alloc), value(&tlsc_stats::tun_freed));
    print_heading("TUN READ STATS:");
    print_counters(stats, tun_read_counters);
    print_heading("TUN WRITE STATS:");
    print_counters(stats, tun_write_counters);
}
