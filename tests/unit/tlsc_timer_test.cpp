// The timer service, with real timer descriptors: the kernel is asked what was armed. What fails on demand and the
// random numbers are stood in for.

#include <csignal>
#include <cstdlib>

#include <sys/timerfd.h>

#include "in_child.h"
#include "tunnel_fixture.h"

// ---- stand-ins ------------------------------------------------------------------------------------------------------

namespace {

bool create_fails;
bool settime_fails;
bool epoll_add_fails;
int  create_clock;
int  create_flags;
int  next_random = -1;  // -1: the C library's own

std::vector<int> deleted_from_epoll;

}  // namespace

extern "C" int __real_timerfd_create(int clock, int flags);
extern "C" int __wrap_timerfd_create(int clock, int flags) {
    create_clock = clock;
    create_flags = flags;
    return create_fails ? -1 : __real_timerfd_create(clock, flags);
}

extern "C" int __real_timerfd_settime(int fd, int flags, const itimerspec *setting, itimerspec *old);
extern "C" int __wrap_timerfd_settime(int fd, int flags, const itimerspec *setting, itimerspec *old) {
    return settime_fails ? -1 : __real_timerfd_settime(fd, flags, setting, old);
}

extern "C" int __real_epoll_ctl(int epoll_fd, int operation, int fd, epoll_event *event);
extern "C" int __wrap_epoll_ctl(int epoll_fd, int operation, int fd, epoll_event *event) {
    if (operation == EPOLL_CTL_ADD && epoll_add_fails) return -1;
    if (operation == EPOLL_CTL_DEL) deleted_from_epoll.push_back(fd);
    return __real_epoll_ctl(epoll_fd, operation, fd, event);
}

extern "C" int __real_rand();
extern "C" int __wrap_rand() { return next_random >= 0 ? next_random : __real_rand(); }

namespace {

using strings = std::vector<std::string>;

// Looked at before any test has run.
const tlsc_timer_slots slots_at_start         = tlsc_timers;
const uint32_t         backoff_at_start       = tlsc_backoff_interval;
const int32_t          retry_ref_at_start     = tlsc_retry_ref;
const int32_t          rekey_flag_at_start    = tlsc_rekey_in_progress;
const int32_t          old_transport_at_start = tlsc_old_transport.fd;

class tlsc_timer : public tunnel_test {
protected:
    tlsc_timer() {
        create_fails    = false;
        settime_fails   = false;
        epoll_add_fails = false;
        next_random     = -1;
        deleted_from_epoll.clear();
        open_epoll();
    }

    // What the kernel has armed; seconds are rounded up, as a moment has passed.
    static long seconds_left(int32_t fd) {
        itimerspec setting{};
        return timerfd_gettime(fd, &setting) == 0 ? setting.it_value.tv_sec + (setting.it_value.tv_nsec > 0) : -1;
    }
    static long period(int32_t fd) {
        itimerspec setting{};
        return timerfd_gettime(fd, &setting) == 0 ? setting.it_interval.tv_sec : -1;
    }
    static bool is_registered(int32_t fd) {
        epoll_event event{};
        event.events  = EPOLLIN;
        event.data.fd = fd;
        return epoll_ctl(tlsc_epoll_fd, EPOLL_CTL_MOD, fd, &event) == 0;
    }
    long dpd_seconds(int32_t interval, int random) {
        conf->dpd_interval = interval;
        next_random        = random;
        EXPECT_EQ(tlsc_start_timer(&tlsc_timers.dpd, 1), 1);
        const long seconds = seconds_left(tlsc_timers.dpd);
        EXPECT_TRUE(log.has("INFO", timer_file, "tlsc_start_timer", text_of("Started DPD Timer for %ld sec", seconds)))
            << interval;
        tlsc_stop_timer(&tlsc_timers.dpd);
        return seconds;
    }
    uint32_t next_backoff(int random) {
        next_random = random;
        EXPECT_EQ(tlsc_start_timer(&tlsc_timers.backoff, 1), 1);
        EXPECT_EQ(seconds_left(tlsc_timers.backoff), static_cast<long>(tlsc_backoff_interval));
        EXPECT_TRUE(log.has("INFO", timer_file, "tlsc_start_timer",
                            text_of("Started Backoff Timer for %u sec", tlsc_backoff_interval)));
        tlsc_stop_timer(&tlsc_timers.backoff);
        return tlsc_backoff_interval;
    }
};

TEST_F(tlsc_timer, at_process_start_no_timer_runs_and_nothing_is_counted_or_saved) {
    for (int32_t slot : {slots_at_start.dpd, slots_at_start.retry, slots_at_start.rekey, slots_at_start.fqdn,
                         slots_at_start.guard, slots_at_start.backoff})
        EXPECT_EQ(slot, -1);
    EXPECT_EQ(backoff_at_start, 0u);
    EXPECT_EQ(retry_ref_at_start, 0);
    EXPECT_EQ(rekey_flag_at_start, 0);
    EXPECT_EQ(old_transport_at_start, -1);
}

// ---- intervals ------------------------------------------------------------------------------------------------------

TEST_F(tlsc_timer, every_timer_takes_its_interval_from_its_place) {
    conf->retry_interval           = 21;
    conf->rekey_interval           = 3601;
    conf->fqdn_resolution_interval = 31;
    const struct {
        int32_t    *slot;
        long        seconds;
        const char *line;
    } cases[] = {{&tlsc_timers.retry, 21, "Started Retry Timer for 21 sec"},
                 {&tlsc_timers.rekey, 3601, "Started Rekey Timer for 3601 sec"},
                 {&tlsc_timers.fqdn, 31, "Started FQDN Resoln Timer for 31 sec"},
                 {&tlsc_timers.backoff, 10, "Started Backoff Timer for 10 sec"}};
    for (const auto &c : cases) {
        ASSERT_EQ(tlsc_start_timer(c.slot, 1), 1);
        EXPECT_EQ(seconds_left(*c.slot), c.seconds);
        EXPECT_EQ(period(*c.slot), 0);
        EXPECT_TRUE(log.has("INFO", timer_file, "tlsc_start_timer", c.line)) << c.line;
        EXPECT_TRUE(log.has("DEBUG", timer_file, "tlsc_start_timer", text_of("Created timer with fd = %d", *c.slot)));
        EXPECT_TRUE(is_registered(*c.slot));
    }
}

TEST_F(tlsc_timer, the_guard_runs_for_10_seconds_without_a_line_of_its_own) {
    ASSERT_EQ(tlsc_start_timer(&tlsc_timers.guard, 1), 1);
    EXPECT_EQ(seconds_left(tlsc_timers.guard), 10);
    EXPECT_EQ(messages_from(timer_file), (strings{text_of("Created timer with fd = %d", tlsc_timers.guard)}));
}

TEST_F(tlsc_timer, any_one_shot_value_but_1_arms_periodically_with_the_same_interval) {
    for (int32_t one_shot : {0, 2, -1}) {
        ASSERT_EQ(tlsc_start_timer(&tlsc_timers.retry, one_shot), 1);
        EXPECT_EQ(seconds_left(tlsc_timers.retry), 20);
        EXPECT_EQ(period(tlsc_timers.retry), 20);
        tlsc_stop_timer(&tlsc_timers.retry);
    }
}

TEST_F(tlsc_timer, a_retry_interval_of_0_starts_a_timer_that_never_expires_and_brings_nothing_back) {
    conf->retry_interval = 0;
    EXPECT_EQ(tlsc_start_timer(&tlsc_timers.retry, 0), 1);
    EXPECT_GT(tlsc_timers.retry, 0);
    EXPECT_FALSE(tlsc_is_any_timer_running());
    tlsc_stop_timer(&tlsc_timers.retry);
    conf->retry_interval = 1;
    EXPECT_EQ(tlsc_start_timer(&tlsc_timers.retry, 0), 1);
    EXPECT_TRUE(tlsc_is_any_timer_running());
    conf->retry_interval = 0;  // of a later response: the timer goes on
    EXPECT_TRUE(tlsc_is_any_timer_running());
    tlsc_stop_timer(&tlsc_timers.retry);
}

TEST_F(tlsc_timer, timers_use_the_monotonic_clock_and_do_not_block) {
    ASSERT_EQ(tlsc_start_timer(&tlsc_timers.retry, 0), 1);
    EXPECT_EQ(create_clock, CLOCK_MONOTONIC);
    EXPECT_TRUE(create_flags & TFD_NONBLOCK);
    EXPECT_TRUE(fcntl(tlsc_timers.retry, F_GETFL) & O_NONBLOCK);
}

TEST_F(tlsc_timer, the_dpd_interval_of_10_gives_8_or_9_seconds) {
    for (int random = 0; random < 10; ++random) EXPECT_EQ(dpd_seconds(10, random), 8 + random % 2);
}

TEST_F(tlsc_timer, the_dpd_interval_of_100_gives_80_to_99_seconds) {
    for (int random = 0; random < 100; ++random) EXPECT_EQ(dpd_seconds(100, random), 80 + random % 20);
}

TEST_F(tlsc_timer, the_smallest_dpd_interval_is_5) {
    EXPECT_EQ(dpd_seconds(5, 12345), 4);
    EXPECT_EQ(dpd_seconds(9, 12345), 7);
}

TEST_F(tlsc_timer, a_dpd_interval_from_0_to_4_raises_the_arithmetic_error_signal) {
    for (int32_t interval = 0; interval <= 4; ++interval) {
        conf->dpd_interval = interval;
        EXPECT_EXIT(
            {
                signal(SIGFPE, SIG_DFL);
                (void)tlsc_start_timer(&tlsc_timers.dpd, 1);
            },
            ::testing::KilledBySignal(SIGFPE), "")
            << interval;
    }
}

TEST_F(tlsc_timer, a_negative_dpd_interval_is_unsigned_arithmetic_and_does_not_end_the_process) {
    // 4294967295 * 8 in 32 bits is 4294967288; a tenth of it is 429496728.
    EXPECT_EQ(dpd_seconds(-1, 0), 429496728);
    EXPECT_EQ(dpd_seconds(-4, 7), static_cast<long>(static_cast<uint32_t>(-4) * 8u / 10u) + 7);
}

TEST_F(tlsc_timer, a_negative_interval_cannot_be_armed) {
    conf->retry_interval = -1;
    EXPECT_EQ(tlsc_start_timer(&tlsc_timers.retry, 0), 0);
    EXPECT_EQ(tlsc_timers.retry, -1);
    EXPECT_TRUE(log.contains(text_of(", sec %lu", static_cast<unsigned long>(-1))));
}

TEST_F(tlsc_timer, a_retry_interval_of_0_runs_but_never_fires) {
    conf->retry_interval = 0;
    EXPECT_EQ(tlsc_start_timer(&tlsc_timers.retry, 0), 1);
    ASSERT_GT(tlsc_timers.retry, 0);
    EXPECT_EQ(seconds_left(tlsc_timers.retry), 0);
}

TEST_F(tlsc_timer, the_kind_is_looked_up_in_the_order_dpd_retry_rekey_fqdn_guard_backoff) {
    conf->dpd_interval             = 100;
    conf->retry_interval           = 21;
    conf->rekey_interval           = 3601;
    conf->fqdn_resolution_interval = 31;
    next_random                    = 0;
    const struct {
        int32_t *slot;
        long     seconds;
    } order[] = {{&tlsc_timers.dpd, 80},  {&tlsc_timers.retry, 21}, {&tlsc_timers.rekey, 3601},
                 {&tlsc_timers.fqdn, 31}, {&tlsc_timers.guard, 10}, {&tlsc_timers.backoff, 50}};
    for (size_t first = 0; first < std::size(order); ++first)
        for (size_t second = 0; second < std::size(order); ++second) {
            tlsc_backoff_interval = 50;
            const int number      = dup(STDERR_FILENO);  // the next descriptor has this number
            close(number);
            if (first != second) *order[first].slot = number;  // a stale one
            ASSERT_EQ(tlsc_start_timer(order[second].slot, 1), 1);
            ASSERT_EQ(*order[second].slot, number);
            EXPECT_EQ(seconds_left(number), order[std::min(first, second)].seconds) << first << " " << second;
            *order[first].slot = number;
            EXPECT_EQ(tlsc_stop_timer(order[first].slot), 1);
            *order[second].slot = -1;
        }
}

// ---- backoff --------------------------------------------------------------------------------------------------------

TEST_F(tlsc_timer, the_backoff_is_10_seconds_first_and_then_grows_by_less_than_a_fifth) {
    EXPECT_EQ(next_backoff(99), 10u);
    EXPECT_EQ(next_backoff(2), 10u);  // 2 mod 2
    EXPECT_EQ(next_backoff(1), 11u);  // 1 mod 2
    EXPECT_EQ(next_backoff(3), 12u);  // 3 mod 2
    tlsc_backoff_interval = 1000;
    EXPECT_EQ(next_backoff(199), 1199u);
    tlsc_backoff_interval = 1000;
    EXPECT_EQ(next_backoff(200), 1000u);
}

TEST_F(tlsc_timer, the_backoff_never_exceeds_3600_seconds) {
    tlsc_backoff_interval = 3599;
    EXPECT_EQ(next_backoff(0), 3599u);
    EXPECT_EQ(next_backoff(1), 3600u);
    EXPECT_EQ(next_backoff(719), 3600u);
    uint32_t last         = 0;
    next_random           = -1;
    tlsc_backoff_interval = 0;
    for (int failure = 0; failure < 200; ++failure) {
        const uint32_t now = next_backoff(-1);
        ASSERT_GE(now, last);
        ASSERT_LE(now, std::min(3600u, last == 0 ? 10u : last + last / 5 - 1));
        last = now;
    }
    EXPECT_EQ(last, 3600u);
}

TEST_F(tlsc_timer, the_backoff_is_kept_when_the_timer_is_stopped) {
    EXPECT_EQ(next_backoff(0), 10u);
    EXPECT_EQ(tlsc_backoff_interval, 10u);
}

// ---- starting -------------------------------------------------------------------------------------------------------

TEST_F(tlsc_timer, a_running_timer_is_never_armed_again) {
    ASSERT_EQ(tlsc_start_timer(&tlsc_timers.rekey, 0), 1);
    const int32_t    fd = tlsc_timers.rekey;
    const itimerspec in_a_day{{0, 0}, {86400, 0}};
    ASSERT_EQ(__real_timerfd_settime(fd, 0, &in_a_day, nullptr), 0);
    log.clear();
    EXPECT_EQ(tlsc_start_timer(&tlsc_timers.rekey, 1), 1);
    EXPECT_EQ(tlsc_timers.rekey, fd);
    EXPECT_GT(seconds_left(fd), 86000);
    EXPECT_EQ(lines_from(timer_file),
              (strings{text_of("WARNING tlsc_start_timer: Timer is already running with fd = %d", fd)}));
}

TEST_F(tlsc_timer, a_slot_holding_descriptor_0_counts_as_running) {
    tlsc_timers.retry = 0;
    EXPECT_EQ(tlsc_start_timer(&tlsc_timers.retry, 1), 1);
    EXPECT_TRUE(log.contains("Timer is already running with fd = 0"));
    EXPECT_EQ(tlsc_timers.retry, 0);
}

TEST_F(tlsc_timer, a_failed_creation_leaves_the_negative_result) {
    create_fails = true;
    EXPECT_EQ(tlsc_start_timer(&tlsc_timers.fqdn, 1), 0);
    EXPECT_EQ(tlsc_timers.fqdn, -1);
    EXPECT_TRUE(log.has("ERROR", timer_file, "tlsc_start_timer", "Could not create timer in timerfd_create()"));
}

TEST_F(tlsc_timer, a_timer_that_cannot_be_armed_is_closed) {
    settime_fails    = true;
    const int before = open_descriptors();
    EXPECT_EQ(tlsc_start_timer(&tlsc_timers.fqdn, 1), 0);
    EXPECT_EQ(tlsc_timers.fqdn, -1);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_TRUE(logged_like("ERROR", "tlsc_start_timer", "Start timer failed for fd = ~, sec 30"));
}

TEST_F(tlsc_timer, a_timer_that_cannot_be_registered_is_closed) {
    epoll_add_fails  = true;
    const int before = open_descriptors();
    EXPECT_EQ(tlsc_start_timer(&tlsc_timers.guard, 1), 0);
    EXPECT_EQ(tlsc_timers.guard, -1);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_TRUE(logged_like("ERROR", "tlsc_start_timer", "Could not add timer-fd(~) to epoll"));
}

TEST_F(tlsc_timer, a_slot_of_no_known_kind_is_reported) {
    int32_t stranger = -1;
    (void)tlsc_start_timer(&stranger, 1);
    EXPECT_TRUE(log.has("ERROR", timer_file, "tlsc_start_timer", "Unknown Timer FD"));
    if (stranger > 0) close(stranger);
}

TEST_F(tlsc_timer, a_null_slot_is_refused) {
    EXPECT_EQ(tlsc_start_timer(nullptr, 1), 0);
    EXPECT_EQ(tlsc_stop_timer(nullptr), 0);
    EXPECT_EQ(lines_from(timer_file), (strings{"ERROR tlsc_start_timer: Null ptr received for slot",
                                               "ERROR tlsc_stop_timer: Invalid timer-fd received in stop-timer"}));
}

// ---- stopping -------------------------------------------------------------------------------------------------------

TEST_F(tlsc_timer, a_stopped_timer_is_taken_out_of_epoll_and_closed) {
    ASSERT_EQ(tlsc_start_timer(&tlsc_timers.dpd, 1), 1);
    const int32_t fd = tlsc_timers.dpd;
    EXPECT_EQ(tlsc_stop_timer(&tlsc_timers.dpd), 1);
    EXPECT_EQ(tlsc_timers.dpd, -1);
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(deleted_from_epoll, std::vector<int>{fd});
}

TEST_F(tlsc_timer, stopping_a_slot_without_a_timer_is_reported_and_harmless) {
    EXPECT_EQ(tlsc_stop_timer(&tlsc_timers.dpd), 0);
    EXPECT_TRUE(log.has("ERROR", timer_file, "tlsc_stop_timer", "Invalid timer-fd received in stop-timer"));
}

TEST_F(tlsc_timer, a_slot_holding_descriptor_0_is_stopped_like_any_other) {
    EXPECT_EQ(in_child([] {
                  close(0);
                  EXPECT_EQ(tlsc_start_timer(&tlsc_timers.dpd, 1), 1);
                  EXPECT_EQ(tlsc_timers.dpd, 0);
                  EXPECT_EQ(tlsc_stop_timer(&tlsc_timers.dpd), 1);
                  EXPECT_EQ(tlsc_timers.dpd, -1);
                  EXPECT_FALSE(is_open(0));
                  return 0;
              }),
              0);
}

TEST_F(tlsc_timer, a_timer_that_cannot_be_disarmed_is_stopped_all_the_same) {
    ASSERT_EQ(tlsc_start_timer(&tlsc_timers.dpd, 1), 1);
    const int32_t fd = tlsc_timers.dpd;
    settime_fails    = true;
    EXPECT_EQ(tlsc_stop_timer(&tlsc_timers.dpd), 1);
    EXPECT_FALSE(is_open(fd));
    EXPECT_TRUE(log.has("ERROR", timer_file, "tlsc_stop_timer", text_of("Stop timer failed for fd = %d", fd)));
}

TEST_F(tlsc_timer, a_timer_that_epoll_does_not_know_is_stopped_all_the_same) {
    ASSERT_EQ(tlsc_start_timer(&tlsc_timers.dpd, 1), 1);
    const int32_t fd = tlsc_timers.dpd;
    ASSERT_EQ(__real_epoll_ctl(tlsc_epoll_fd, EPOLL_CTL_DEL, fd, nullptr), 0);
    EXPECT_EQ(tlsc_stop_timer(&tlsc_timers.dpd), 1);
    EXPECT_FALSE(is_open(fd));
    EXPECT_TRUE(log.has("DEBUG", timer_file, "tlsc_stop_timer", "Couldnt delete Timer FD from Epoll"));
}

TEST_F(tlsc_timer, without_an_epoll_instance_a_stop_leaves_epoll_alone) {
    const int epoll_fd = tlsc_epoll_fd;
    for (int none : {0, -1}) {
        ASSERT_EQ(tlsc_start_timer(&tlsc_timers.dpd, 1), 1);
        tlsc_epoll_fd = none;
        EXPECT_EQ(tlsc_stop_timer(&tlsc_timers.dpd), 1);
        EXPECT_TRUE(deleted_from_epoll.empty());
        tlsc_epoll_fd = epoll_fd;
    }
}

TEST_F(tlsc_timer, stop_all_goes_retry_dpd_rekey_fqdn_backoff_guard) {
    int32_t *const   order[] = {&tlsc_timers.retry, &tlsc_timers.dpd,     &tlsc_timers.rekey,
                                &tlsc_timers.fqdn,  &tlsc_timers.backoff, &tlsc_timers.guard};
    std::vector<int> descriptors;
    for (int32_t *slot : order) {
        ASSERT_EQ(tlsc_start_timer(slot, 1), 1);
        descriptors.push_back(*slot);
    }
    tlsc_stop_all_timers();
    EXPECT_EQ(deleted_from_epoll, descriptors);
    for (int32_t *slot : order) EXPECT_EQ(*slot, -1);
}

TEST_F(tlsc_timer, stop_all_skips_slots_holding_descriptor_0_and_stopped_ones) {
    tlsc_timers.retry = 0;
    log.clear();
    tlsc_stop_all_timers();
    EXPECT_EQ(tlsc_timers.retry, 0);
    EXPECT_EQ(log.text(), "");
}

}  // namespace
