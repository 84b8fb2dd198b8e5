// The turn of the tunnel thread, with threads of the test's own in its place.

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include <pthread.h>

#include <gtest/gtest.h>

#include "tlsc_turn.h"

#include "tls_peer.h"

namespace {

std::atomic<bool> go_on;
std::atomic<int>  interrupts;

void wait_for_go() {
    while (!go_on) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

}  // namespace

extern "C" unsigned __wrap_sleep(unsigned seconds) {
    EXPECT_EQ(seconds, 2u);
    wait_for_go();
    return 0;
}

namespace {

void moment() { std::this_thread::sleep_for(std::chrono::milliseconds(20)); }

class tlsc_turn_test : public ::testing::Test {
protected:
    tlsc_turn_test() {
        go_on      = false;
        interrupts = 0;
    }
    ~tlsc_turn_test() override {
        go_on = true;
        if (thread_.joinable()) thread_.join();
    }
    // A run that is at this place until the test lets it go on; then it works once more.
    void start_at(tlsc_place place) {
        thread_ = std::thread([this, place] {
            const tlsc_turn run(TLSC_AT_WORK);
            {
                const tlsc_turn wait(place);
                is_there_ = true;
                wait_for_go();
            }
            ++steps_;
        });
        ASSERT_TRUE(eventually([this] { return is_there_.load(); }));
    }
    void join() { thread_.join(); }

    std::atomic<int> steps_{0};

private:
    std::atomic<bool> is_there_{false};
    std::thread       thread_;
};

TEST_F(tlsc_turn_test, without_a_run_it_is_held_and_halted_at_once_again_and_again) {
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(tlsc_hold_tunnel_thread(0));
        tlsc_resume_tunnel_thread();
        ASSERT_TRUE(tlsc_halt_tunnel_thread(0, nullptr));
        tlsc_resume_tunnel_thread();
        ASSERT_TRUE(tlsc_halt_tunnel_thread(0, nullptr));
        tlsc_retire_tunnel_thread();
        tlsc_resume_tunnel_thread();
    }
}

TEST_F(tlsc_turn_test, a_thread_at_work_can_be_neither_held_nor_halted) {
    start_at(TLSC_AT_WORK);
    EXPECT_FALSE(tlsc_hold_tunnel_thread(0));
    EXPECT_FALSE(tlsc_halt_tunnel_thread(0, nullptr));
}

TEST_F(tlsc_turn_test, a_thread_at_a_safepoint_stands_still_until_it_is_resumed) {
    start_at(TLSC_AT_SAFEPOINT);
    ASSERT_TRUE(tlsc_halt_tunnel_thread(0, nullptr));
    go_on = true;
    moment();
    EXPECT_EQ(steps_, 0);
    tlsc_resume_tunnel_thread();
    join();
    EXPECT_EQ(steps_, 1);
}

TEST_F(tlsc_turn_test, a_thread_inside_openssl_can_be_held_but_not_halted) {
    start_at(TLSC_IN_TLS);
    EXPECT_FALSE(tlsc_halt_tunnel_thread(0, nullptr));
    ASSERT_TRUE(tlsc_hold_tunnel_thread(0));
    go_on = true;
    moment();
    EXPECT_EQ(steps_, 0);
    tlsc_resume_tunnel_thread();
    join();
    EXPECT_EQ(steps_, 1);
}

TEST_F(tlsc_turn_test, who_halts_a_thread_inside_openssl_may_interrupt_it_once) {
    start_at(TLSC_IN_TLS);
    ASSERT_TRUE(tlsc_halt_tunnel_thread(5, [] {
        ++interrupts;
        go_on = true;
    }));
    EXPECT_EQ(interrupts, 1);
    EXPECT_EQ(steps_, 0);
    tlsc_resume_tunnel_thread();
}

TEST_F(tlsc_turn_test, a_thread_at_a_safepoint_is_not_interrupted) {
    start_at(TLSC_AT_SAFEPOINT);
    ASSERT_TRUE(tlsc_halt_tunnel_thread(5, [] { ++interrupts; }));
    EXPECT_EQ(interrupts, 0);
    tlsc_resume_tunnel_thread();
}

TEST_F(tlsc_turn_test, one_at_a_time_has_the_gate) {
    start_at(TLSC_AT_SAFEPOINT);
    ASSERT_TRUE(tlsc_hold_tunnel_thread(0));
    EXPECT_FALSE(tlsc_hold_tunnel_thread(0));
    EXPECT_FALSE(tlsc_halt_tunnel_thread(0, nullptr));
    go_on = true;
    moment();
    EXPECT_EQ(steps_, 0);  // those who did not get the gate have not opened it
    tlsc_resume_tunnel_thread();
}

TEST_F(tlsc_turn_test, a_callback_waits_while_the_tunnel_is_held) {
    std::atomic<bool> is_in_tls{false};
    std::atomic<bool> was_called{false};
    std::thread       thread([&] {
        const tlsc_turn run(TLSC_AT_WORK);
        const tlsc_turn call(TLSC_IN_TLS);
        is_in_tls = true;
        wait_for_go();
        const tlsc_turn callback(TLSC_AT_WORK);
        was_called = true;
    });
    ASSERT_TRUE(eventually([&] { return is_in_tls.load(); }));
    ASSERT_TRUE(tlsc_hold_tunnel_thread(0));
    go_on = true;
    moment();
    EXPECT_FALSE(was_called);
    tlsc_resume_tunnel_thread();
    thread.join();
    EXPECT_TRUE(was_called);
}

TEST_F(tlsc_turn_test, a_callback_does_not_keep_up_who_waits_for_the_end) {
    std::atomic<bool> is_in_tls{false};
    std::thread       thread([&] {
        const tlsc_turn run(TLSC_AT_WORK);
        const tlsc_turn call(TLSC_IN_TLS);
        is_in_tls = true;
        wait_for_go();
        const tlsc_turn callback(TLSC_AT_WORK);
    });
    ASSERT_TRUE(eventually([&] { return is_in_tls.load(); }));
    EXPECT_TRUE(tlsc_halt_tunnel_thread(5, [] { go_on = true; }));
    tlsc_resume_tunnel_thread();
    thread.join();
}

void *retired_run(void *steps) {
    const tlsc_turn run(TLSC_AT_WORK);
    tlsc_sleep_out_of_turn(2);
    ++*static_cast<std::atomic<int> *>(steps);
    return nullptr;
}

TEST_F(tlsc_turn_test, a_retired_thread_ends_at_its_safepoint_and_the_next_run_begins) {
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, retired_run, &steps_), 0);
    moment();
    ASSERT_TRUE(tlsc_halt_tunnel_thread(0, nullptr));
    tlsc_retire_tunnel_thread();
    go_on = true;
    pthread_join(thread, nullptr);
    EXPECT_EQ(steps_, 0);
    tlsc_resume_tunnel_thread();
    start_at(TLSC_AT_WORK);
    EXPECT_TRUE(eventually([this] { return steps_ == 1; }));
}

void *beginning_run(void *steps) {
    const tlsc_turn run(TLSC_AT_WORK);
    ++*static_cast<std::atomic<int> *>(steps);
    return nullptr;
}

void *late_run(void *steps) {
    while (!go_on) {}  // no point at which it could be cancelled
    return beginning_run(steps);
}

TEST_F(tlsc_turn_test, a_thread_that_was_only_beginning_is_retired_too_however_late_it_comes) {
    for (void *(*body)(void *) : {beginning_run, late_run}) {
        go_on = false;
        pthread_t thread;
        ASSERT_TRUE(tlsc_halt_tunnel_thread(0, nullptr));
        ASSERT_EQ(pthread_create(&thread, nullptr, body, &steps_), 0);
        moment();
        pthread_cancel(thread);
        tlsc_retire_tunnel_thread();
        moment();
        go_on = true;
        pthread_join(thread, nullptr);
        tlsc_resume_tunnel_thread();
        EXPECT_EQ(steps_, 0);
    }
    start_at(TLSC_AT_WORK);
    EXPECT_TRUE(eventually([this] { return steps_ == 1; }));
}

TEST_F(tlsc_turn_test, a_second_run_waits_for_the_end_of_the_first) {
    start_at(TLSC_AT_SAFEPOINT);
    std::atomic<bool> works{false};
    std::thread       second([&works] {
        const tlsc_turn run(TLSC_AT_WORK);
        works = true;
    });
    moment();
    EXPECT_FALSE(works);
    go_on = true;
    second.join();
    EXPECT_EQ(steps_, 1);
}

TEST_F(tlsc_turn_test, a_wait_of_a_thread_without_a_run_does_not_touch_the_turn_of_another) {
    start_at(TLSC_AT_WORK);
    {
        const tlsc_turn wait(TLSC_AT_SAFEPOINT);
        EXPECT_FALSE(tlsc_hold_tunnel_thread(0));
    }
    EXPECT_FALSE(tlsc_hold_tunnel_thread(0));
}

// A word that is no atomic: a hole in the protocol is a race, or a lost step.
TEST_F(tlsc_turn_test, what_is_touched_at_work_and_what_is_touched_while_it_is_quiesced_never_meet) {
    constexpr int     rounds   = 20000;
    int64_t           shared   = 0;
    int64_t           quiesced = 0;
    std::atomic<bool> is_done{false};
    std::thread       thread([&] {
        const tlsc_turn run(TLSC_AT_WORK);
        for (int i = 0; i < rounds; ++i) {
            ++shared;
            const tlsc_turn wait(i % 3 == 0 ? TLSC_IN_TLS : TLSC_AT_SAFEPOINT);
            if (i % 3 != 0) continue;
            const tlsc_turn callback(TLSC_AT_WORK);
            ++shared;
        }
        is_done = true;
    });
    while (!is_done) {
        const bool held = quiesced % 2 == 0 ? tlsc_hold_tunnel_thread(0) : tlsc_halt_tunnel_thread(0, nullptr);
        if (!held) continue;
        ++shared;
        ++quiesced;
        tlsc_resume_tunnel_thread();
    }
    thread.join();
    EXPECT_EQ(shared, rounds + (rounds + 2) / 3 + quiesced);
}

}  // namespace
