// Contents: 1 timer service  2 DPD and retry  3 the old transport  4 rekey  5 expiry
// Rekey: tlsc_handle_timer -> tlsc_handle_rekey_expiry -> controller's answer or FQDN timer -> tlsc_start_rekey_proc
//        -> tlsc_create_tcp_conn -> configuration response (old transport closed)

#include "tlsc_timer.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sys/timerfd.h>
#include <unistd.h>

#include "tlsc_openssl.h"

#include "tlsc_config.h"
#include "tlsc_debug.h"

#include "tlsc_cstp.h"    // DPD requests
#include "tlsc_engine.h"  // epoll registry, connection, teardown, data-path state

#include "tlsc_platform.h"  // counters, the controller is asked for the gateway's address

// ==== 1 Timer service ============================================================================================
// Invariants: a slot is -1 or an open timerfd that is registered with epoll; whoever closes one sets its slot to -1,
// so that no number is found in two slots. A running timer is never armed again.

tlsc_timer_slots tlsc_timers;
uint32_t         tlsc_backoff_interval;

namespace {

// The gateway may assign a retry interval of 0, which leaves the timer disarmed; no other interval can be 0.
bool does_retry_expire;

constexpr int64_t  guard_seconds         = 10;    // wait for the configuration response
constexpr uint32_t first_backoff_seconds = 10;    // pause after the first failure
constexpr uint32_t max_backoff_seconds   = 3600;  // the pause grows no further

// Four fifths of the interval and up to a fifth at random, in unsigned arithmetic.
// By contract: an interval from 0 to 4 raises the arithmetic-error signal, whatever the processor's division does.
uint32_t dpd_seconds(int32_t interval) {
    const auto     seconds = static_cast<uint32_t>(interval);
    const uint32_t spread  = seconds / 5;
    if (spread == 0) {
        (void)raise(SIGFPE);
        abort();
    }
    return seconds * 8 / 10 + static_cast<uint32_t>(rand()) % spread;
}

uint32_t next_backoff_seconds(uint32_t current) {
    if (current == 0) return first_backoff_seconds;
    return std::min(current + static_cast<uint32_t>(rand()) % (current / 5), max_backoff_seconds);
}

// The seconds of the timer whose slot holds fd. The order of the comparisons is fixed.
int64_t choose_seconds(int32_t fd) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_start_timer"};

    const tlsc_config *conf    = tlsc_get_config();
    int64_t            seconds = 0;

    if (fd == tlsc_timers.dpd) {
        seconds = dpd_seconds(conf->dpd_interval);
        TLSC_INFO("Started DPD Timer for %d sec", static_cast<int>(seconds));
    } else if (fd == tlsc_timers.retry) {
        seconds = conf->retry_interval;
        TLSC_INFO("Started Retry Timer for %d sec", static_cast<int>(seconds));
    } else if (fd == tlsc_timers.rekey) {
        seconds = conf->rekey_interval;
        TLSC_INFO("Started Rekey Timer for %d sec", static_cast<int>(seconds));
    } else if (fd == tlsc_timers.fqdn) {
        seconds = conf->fqdn_resolution_interval;
        TLSC_INFO("Started FQDN Resoln Timer for %d sec", static_cast<int>(seconds));
    } else if (fd == tlsc_timers.guard) {
        seconds = guard_seconds;
    } else if (fd == tlsc_timers.backoff) {
        tlsc_backoff_interval = next_backoff_seconds(tlsc_backoff_interval);
        seconds               = tlsc_backoff_interval;
        TLSC_INFO("Started Backoff Timer for %d sec", static_cast<int>(seconds));
    } else {
        TLSC_ERROR("Unknown Timer FD");
    }
    return seconds;
}

void close_timer(int32_t *slot) {
    close(*slot);
    tlsc_forget_fd_events(*slot);
    *slot = -1;
}

}  // namespace

int32_t tlsc_start_timer(int32_t *slot, int32_t one_shot) {
    if (!slot) {
        TLSC_ERROR("Null ptr received for slot");
        return 0;
    }
    if (*slot >= 0) {
        TLSC_WARNING("Timer is already running with fd = %d", *slot);
        return 1;
    }

    *slot = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (*slot < 0) {
        TLSC_ERROR("Could not create timer in timerfd_create()");
        return 0;
    }
    TLSC_DEBUG("Created timer with fd = %d", *slot);

    const int64_t seconds = choose_seconds(*slot);
    itimerspec    setting{};
    setting.it_value.tv_sec    = static_cast<time_t>(seconds);
    setting.it_interval.tv_sec = one_shot == 1 ? 0 : setting.it_value.tv_sec;
    if (slot == &tlsc_timers.retry) does_retry_expire = seconds != 0;
    if (timerfd_settime(*slot, 0, &setting, nullptr) != 0) {
        TLSC_ERROR("Start timer failed for fd = %d, sec %lu", *slot, static_cast<unsigned long>(seconds));
        close_timer(slot);
        return 0;
    }
    if (!tlsc_add_fd_to_epoll(tlsc_epoll_fd, *slot)) {
        TLSC_ERROR("Could not add timer-fd(%d) to epoll", *slot);
        close_timer(slot);
        return 0;
    }
    return 1;
}

int32_t tlsc_stop_timer(int32_t *slot) {
    if (!slot || *slot < 0) {
        TLSC_ERROR("Invalid timer-fd received in stop-timer");
        return 0;
    }
    const itimerspec disarmed{};
    if (timerfd_settime(*slot, 0, &disarmed, nullptr) != 0) TLSC_ERROR("Stop timer failed for fd = %d", *slot);
    if (tlsc_epoll_fd > 0 && !tlsc_delete_fd_from_epoll(tlsc_epoll_fd, *slot))
        TLSC_DEBUG("Couldnt delete Timer FD from Epoll");
    close_timer(slot);
    return 1;
}

void tlsc_stop_all_timers() {
    for (int32_t *slot : {&tlsc_timers.retry, &tlsc_timers.dpd, &tlsc_timers.rekey, &tlsc_timers.fqdn,
                          &tlsc_timers.backoff, &tlsc_timers.guard})
        if (*slot > 0) tlsc_stop_timer(slot);
}

void tlsc_end_timers() {
    tlsc_stop_all_timers();
    tlsc_rekey_in_progress = 0;
    tlsc_backoff_interval  = 0;
}

// ==== 2 DPD and retry ============================================================================================
// One request when the DPD timer fires, then one at each of three retry expiries; the fourth gives the peer up.

int32_t tlsc_retry_ref;

namespace {

constexpr int32_t max_retries = 3;

}  // namespace

void tlsc_handle_dpd_expiry(tlsc_sock *sock) {
    if (!sock) {
        TLSC_ERROR("Null ptr received for sock");
        return;
    }

    TLSC_DEBUG("DPD timer expiry event");
    (void)tlsc_send_dpd_req(sock);  // a request that was not sent is repeated like one that was lost
    if (!tlsc_start_timer(&tlsc_timers.retry, 0))
        TLSC_ERROR("Could not start Retry timer for client-sock-fd = %d", sock->sockfd);
    if (!tlsc_delete_fd_from_epoll(tlsc_epoll_fd, tlsc_timers.dpd))
        TLSC_ERROR("Could not delete the dpd-timer-fd(%d) from epoll", tlsc_timers.dpd);
    close_timer(&tlsc_timers.dpd);
}

void tlsc_stop_retries() {
    tlsc_stop_timer(&tlsc_timers.retry);
    tlsc_retry_ref = 0;
}

void tlsc_handle_retry_expiry(tlsc_sock *sock) {
    if (!sock) {
        TLSC_ERROR("Null ptr received for sock");
        return;
    }

    TLSC_DEBUG("Retry timer expiry event");
    if (tlsc_retry_ref < max_retries) {
        ++tlsc_retry_ref;
        (void)tlsc_send_dpd_req(sock);
        return;
    }
    TLSC_ERROR("Retry count exceeded, no response received from Server. Close connection and start back-off timer");
    tlsc_stop_retries();
    tlsc_sock_error(TLSC_DOWN_DPD_TIMEOUT);
}

// ==== 3 The old transport ========================================================================================
// The connection that a rekey replaces, kept until the new one has its configuration response. Invariant: ssl is its
// TLS session while fd is above 0, and null otherwise.

tlsc_transport tlsc_old_transport;

namespace {

// One that an earlier attempt has kept and nobody has closed since makes way.
void keep_old_transport(const tlsc_sock *sock) {
    if (tlsc_old_transport.fd == sock->sockfd) return;  // kept already, by an attempt that got no further
    if (tlsc_old_transport.fd > 0) tlsc_close_old_transport();
    tlsc_old_transport = {sock->sockfd, sock->ssl};
}

}  // namespace

void tlsc_close_old_transport() {
    tlsc_close_transport(tlsc_old_transport.fd);
    tlsc_forget_old_transport(tlsc_old_transport.fd);
}

void tlsc_abandon_old_transport() {
    if (tlsc_old_transport.fd > 0) tlsc_close_transport(tlsc_old_transport.fd);
    SSL_free(tlsc_old_transport.ssl);
    tlsc_old_transport = {};
}

void tlsc_take_back_old_transport(tlsc_sock *sock) {
    if (tlsc_old_transport.fd <= 0 || tlsc_old_transport.fd != sock->sockfd) return;
    SSL_free(sock->ssl);
    sock->ssl          = tlsc_old_transport.ssl;
    tlsc_old_transport = {};
}

void tlsc_forget_old_transport(int32_t closed_fd) {
    if (tlsc_old_transport.fd != closed_fd) return;
    tlsc_old_transport.fd = -1;
    tlsc_ssl_cleanup(tlsc_old_transport.ssl);
    tlsc_old_transport.ssl = nullptr;
}

// ==== 4 Rekey ====================================================================================================

int32_t tlsc_rekey_in_progress;

void tlsc_note_good_response() {
    if (tlsc_rekey_in_progress == 1) {
        tlsc_count(&tlsc_stats::rekey_success);
        tlsc_rekey_in_progress = 0;
    }
    tlsc_backoff_interval = 0;
}

void tlsc_handle_rekey_expiry(tlsc_sock *sock) {
    if (!sock) {
        TLSC_ERROR("Null ptr received for sock");
        return;
    }

    TLSC_DEBUG("Rekey timer expiry event received");
    TLSC_DEBUG("Disable data transfer till rekey completes, new state %d", 0);
    tlsc_dp_state = 0;
    if (tlsc_request_gw_name_resolution() == 1 && tlsc_start_timer(&tlsc_timers.fqdn, 1)) return;
    TLSC_ERROR("FQDN Resoln failed, try rekeying with previous GW IP");
    tlsc_start_rekey_proc(sock);
}

int32_t tlsc_start_rekey_proc(tlsc_sock *sock) {
    if (!sock) {
        TLSC_ERROR("Null ptr received for sock");
        return 0;
    }

    tlsc_stop_all_timers();
    if (sock->sockfd > 0) keep_old_transport(sock);
    TLSC_INFO("Establish new TCP connection");
    const int32_t result = tlsc_create_tcp_conn();
    if (!result) {
        TLSC_ERROR("TCP connection failed!!!");
        return 0;
    }
    if (sock->sockfd > 0) {
        if (!tlsc_add_fd_to_epoll(tlsc_epoll_fd, sock->sockfd))
            TLSC_ERROR("Could not add the new client-sock-fd(%d) to epoll(%d) after rekey timeout", sock->sockfd,
                       tlsc_epoll_fd);
        TLSC_INFO("TCP connection established after rekey timeout, client-sock-fd = %d", sock->sockfd);
    }
    // It stays open until the response; what the gateway still sends on it is lost.
    if (tlsc_old_transport.fd != -1 && !tlsc_delete_fd_from_epoll(tlsc_epoll_fd, tlsc_old_transport.fd))
        TLSC_ERROR("Could not delete the old-transport-fd(%d) from epoll-list", tlsc_old_transport.fd);
    return result;
}

void tlsc_abandon_timers() {
    for (int32_t *slot : {&tlsc_timers.retry, &tlsc_timers.dpd, &tlsc_timers.rekey, &tlsc_timers.fqdn,
                          &tlsc_timers.backoff, &tlsc_timers.guard})
        if (*slot > 0) close_timer(slot);
}

bool tlsc_is_any_timer_running() {
    for (int32_t slot : {tlsc_timers.dpd, tlsc_timers.rekey, tlsc_timers.backoff, tlsc_timers.guard, tlsc_timers.fqdn})
        if (slot > 0) return true;
    return tlsc_timers.retry > 0 && does_retry_expire;
}

// ==== 5 Expiry ===================================================================================================
// What the loop does when a timer's descriptor is readable. All but the retry timer end with it.

namespace {

// The handlers of these timers close them, so their expiry count need not be consumed.
void discard_expiry(int32_t fd) {
    int32_t unused;
    if (read(fd, &unused, sizeof(unused)) < 0) return;
}

void on_dpd_timer(tlsc_sock *sock) {
    discard_expiry(tlsc_timers.dpd);
    tlsc_handle_dpd_expiry(sock);
}

void on_retry_timer(tlsc_sock *sock) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_start_epoll"};

    uint64_t      expirations;
    const ssize_t count = read(tlsc_timers.retry, &expirations, sizeof(expirations));
    if (count == -1)
        TLSC_ERROR("Retry timer fd read error, ret1=%d, errstr=%s", static_cast<int>(count), strerror(errno));
    tlsc_handle_retry_expiry(sock);
}

void on_rekey_timer(tlsc_sock *sock) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_start_epoll"};

    discard_expiry(tlsc_timers.rekey);
    tlsc_rekey_in_progress = 1;
    tlsc_count(&tlsc_stats::rekey_attempts);
    if (!tlsc_delete_fd_from_epoll(tlsc_epoll_fd, tlsc_timers.rekey))
        TLSC_ERROR("Couldnt delete the rekey-timer-fd(%d) after rekeying", tlsc_timers.rekey);
    if (tlsc_timers.rekey > 0) close_timer(&tlsc_timers.rekey);
    tlsc_handle_rekey_expiry(sock);
}

void on_guard_timer() {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_start_epoll"};

    discard_expiry(tlsc_timers.guard);
    if (tlsc_old_transport.fd > 0) {
        TLSC_DEBUG("Closing the old transport-fd(%d)", tlsc_old_transport.fd);
        tlsc_close_old_transport();
    }
    if (!tlsc_delete_fd_from_epoll(tlsc_epoll_fd, tlsc_timers.guard))
        TLSC_ERROR("Couldnt delete the guard-timer-fd(%d) upon expiry", tlsc_timers.guard);
    close_timer(&tlsc_timers.guard);
    tlsc_sock_error(TLSC_DOWN_CSTP_TIMEOUT);
}

void on_backoff_timer(tlsc_sock *sock) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_start_epoll"};

    discard_expiry(tlsc_timers.backoff);
    if (!tlsc_delete_fd_from_epoll(tlsc_epoll_fd, tlsc_timers.backoff))
        TLSC_ERROR("Couldnt delete the backoff-timer-fd(%d) after rekeying", tlsc_timers.backoff);
    close_timer(&tlsc_timers.backoff);
    tlsc_handle_rekey_expiry(sock);  // a reconnection goes the same way as a rekey
}

void on_fqdn_timer(tlsc_sock *sock) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_start_epoll"};

    discard_expiry(tlsc_timers.fqdn);
    if (!tlsc_delete_fd_from_epoll(tlsc_epoll_fd, tlsc_timers.fqdn))
        TLSC_ERROR("Couldnt delete the fqdn-resolution-timer-fd(%d) after fqdn-resol timer expiry", tlsc_timers.fqdn);
    close_timer(&tlsc_timers.fqdn);
    tlsc_start_rekey_proc(sock);  // no answer in time: the address already held
}

}  // namespace

bool tlsc_handle_timer(tlsc_sock *sock, int32_t fd) {
    if (fd < 0) return false;  // as the slots of the timers that do not run
    if (fd == tlsc_timers.dpd) return on_dpd_timer(sock), true;
    if (fd == tlsc_timers.retry) return on_retry_timer(sock), true;
    if (fd == tlsc_timers.rekey) return on_rekey_timer(sock), true;
    if (fd == tlsc_timers.guard) return on_guard_timer(), true;
    if (fd == tlsc_timers.backoff) return on_backoff_timer(sock), true;
    if (fd == tlsc_timers.fqdn) return on_fqdn_timer(sock), true;
    return false;
}
