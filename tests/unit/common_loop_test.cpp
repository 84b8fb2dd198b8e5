// The wrappers of the loop: timers, descriptors, signals, children, lookups, files.
#include "common/child.h"
#include "common/file_watch.h"
#include "common/log.h"
#include "common/lookup.h"
#include "common/loop.h"
#include "common/unique_fd.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include "loop_pump.h"

using namespace common;

namespace {

double now_ms() {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// A process that has ended counts as gone, whether its parent has looked at it or not.
bool is_alive(int pid) {
    FILE *file = fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "re");
    if (!file) return false;
    char state = 'Z';
    (void)!fscanf(file, "%*d (%*[^)]) %c", &state);
    fclose(file);
    return state != 'Z';
}

struct socket_pair {
    unique_fd ours, theirs;
    socket_pair() {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds), 0);
        ours.reset(fds[0]);
        theirs.reset(fds[1]);
    }
};

void write_file(const std::string &path, const std::string &text, int flags = O_CREAT | O_TRUNC) {
    unique_fd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC | flags, 0600));
    ASSERT_EQ(write(fd.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

}  // namespace

// ---- timers ---------------------------------------------------------------------------------------------------------

TEST(common_timer, is_never_early) {
    loop   l;
    timer  t(l);
    double begun = 0, fired = 0;
    for (int i = 0; i < 5; i++) {
        begun = now_ms();
        t.start(milliseconds(7), [&] {
            fired = now_ms();
            l.stop();
        });
        l.run();
        EXPECT_GE(fired - begun, 7);
    }
}

TEST(common_timer, runs_once_and_a_repeated_one_again) {
    loop  l;
    timer once(l), again(l);
    int   ones = 0, many = 0;
    once.start(milliseconds(1), [&] { ones++; });
    again.repeat(milliseconds(2), [&] { many++; });
    EXPECT_TRUE(once.is_running());
    EXPECT_TRUE(run_until(l, [&] { return many >= 5; }));
    EXPECT_EQ(ones, 1);
    EXPECT_FALSE(once.is_running());
    again.stop();
    many = 0;
    run_for(l, 10);
    EXPECT_EQ(many, 0);
}

TEST(common_timer, goes_inside_its_own_call) {
    loop l;
    auto t    = std::make_unique<timer>(l);
    bool done = false;
    t->start(milliseconds(1), [&, keep = std::string(100, 'x')] {
        t.reset();
        done = keep.size() == 100;  // what the call holds lives until it returns
    });
    EXPECT_TRUE(run_until(l, [&] { return done; }));
}

TEST(common_timer, starts_anew_inside_its_own_call) {
    loop  l;
    timer t(l);
    int   first = 0, second = 0;
    t.start(milliseconds(1), [&] {
        first++;
        t.start(milliseconds(1), [&] { second++; });
    });
    EXPECT_TRUE(run_until(l, [&] { return second == 1; }));
    EXPECT_EQ(first, 1);
}

TEST(common_loop, a_call_that_throws_ends_there_and_the_loop_goes_on) {
    loop  l;
    timer bad(l), good(l);
    bool  is_done = false;
    bad.start(milliseconds(1), [] { throw std::runtime_error("on purpose"); });
    good.start(milliseconds(5), [&] { is_done = true; });
    EXPECT_TRUE(run_until(l, [&] { return is_done; }));
}

TEST(common_loop, what_is_called_later_runs_in_order_and_may_add_more) {
    loop             l;
    std::vector<int> order;
    l.later([&] {
        order.push_back(1);
        l.later([&] { order.push_back(3); });
    });
    l.later([&] { order.push_back(2); });
    EXPECT_TRUE(run_until(l, [&] { return order.size() == 3; }));
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(common_loop, a_stop_before_the_run_counts_and_the_pass_has_an_end) {
    loop l;
    int  passes = 0;
    l.stop();
    l.run([&] { passes++; });
    EXPECT_EQ(passes, 0);
    l.later([&] { l.stop(); });
    l.run([&] { passes++; });
    EXPECT_EQ(passes, 1);
}

// ---- descriptors and signals ----------------------------------------------------------------------------------------

TEST(common_descriptor, tells_what_it_is_ready_for) {
    loop             l;
    socket_pair      pair;
    descriptor_watch watch(l, pair.ours.get());
    unsigned         seen = 0;
    watch.start(readable, [&](unsigned events) {
        seen |= events;
        watch.change(0);
    });
    run_for(l, 5);
    EXPECT_EQ(seen, 0u);
    ASSERT_EQ(write(pair.theirs.get(), "x", 1), 1);
    EXPECT_TRUE(run_until(l, [&] { return seen != 0; }));
    EXPECT_EQ(seen, readable);
    watch.change(writable);
    EXPECT_TRUE(run_until(l, [&] { return seen == (readable | writable); }));
}

TEST(common_descriptor, a_hang_up_counts_as_ready) {
    loop             l;
    socket_pair      pair;
    descriptor_watch watch(l, pair.ours.get());
    unsigned         seen = 0;
    watch.start(readable, [&](unsigned events) {
        seen = events;
        watch.change(0);
    });
    pair.theirs.reset();
    EXPECT_TRUE(run_until(l, [&] { return seen != 0; }));
    EXPECT_EQ(seen & readable, readable);
}

TEST(common_descriptor, goes_inside_its_own_call_and_its_number_may_be_used_anew) {
    loop        l;
    socket_pair pair;
    auto        watch = std::make_unique<descriptor_watch>(l, pair.ours.get());
    int         calls = 0;
    watch->start(readable, [&](unsigned) {
        calls++;
        watch.reset();
    });
    ASSERT_EQ(write(pair.theirs.get(), "x", 1), 1);
    EXPECT_TRUE(run_until(l, [&] { return calls == 1; }));
    descriptor_watch second(l, pair.ours.get());
    second.start(readable, [&](unsigned) {
        calls++;
        second.change(0);
    });
    EXPECT_TRUE(run_until(l, [&] { return calls == 2; }));
}

TEST(common_descriptor, a_file_on_a_disk_cannot_be_watched) {
    loop      l;
    unique_fd file(open("/etc/passwd", O_RDONLY | O_CLOEXEC));
    EXPECT_THROW(descriptor_watch(l, file.get()), std::runtime_error);
}

TEST(common_signal, calls_for_its_signal) {
    loop         l;
    int          calls = 0;
    signal_watch watch(l, SIGUSR1, [&] { calls++; });
    kill(getpid(), SIGUSR1);
    EXPECT_TRUE(run_until(l, [&] { return calls == 1; }));
}

// ---- children -------------------------------------------------------------------------------------------------------

TEST(common_child, tells_status_output_and_error_output) {
    loop                     l;
    child                    c(l);
    std::string              out, error;
    std::optional<child_end> end;
    child_options            options{.arguments       = {"sh", "-c", "echo out; echo error $A >&2; exit 3"},
                                     .environment     = environment_with({"A=b"}, "A="),
                                     .directory       = "",
                                     .on_output       = [&](std::string_view text) { out += text; },
                                     .on_error_output = [&](std::string_view text) { error += text; }};
    EXPECT_EQ(c.start(options, [&](const child_end &e) { end = e; }), "");
    EXPECT_GT(c.pid(), 0);
    EXPECT_TRUE(run_until(l, [&] { return end.has_value(); }));
    EXPECT_EQ(end->status, 3);
    EXPECT_EQ(end->signal, 0);
    EXPECT_EQ(out, "out\n");
    EXPECT_EQ(error, "error b\n");
    EXPECT_FALSE(c.is_running());
}

TEST(common_child, a_signal_reaches_its_whole_group) {
    loop                     l;
    child                    c(l);
    std::string              out;
    std::optional<child_end> end;
    child_options            options;
    options.arguments = {"sh", "-c", "sleep 1000 & echo $!; wait"};
    options.on_output = [&](std::string_view text) { out += text; };
    ASSERT_EQ(c.start(options, [&](const child_end &e) { end = e; }), "");
    ASSERT_TRUE(run_until(l, [&] { return out.find('\n') != std::string::npos; }));
    c.signal(SIGTERM);
    ASSERT_TRUE(run_until(l, [&] { return end.has_value(); }));
    EXPECT_EQ(end->signal, SIGTERM);
    EXPECT_TRUE(run_until(l, [&] { return !is_alive(atoi(out.c_str())); }));
}

TEST(common_child, its_own_child_that_keeps_the_output_open_does_not_hide_the_end) {
    loop                     l;
    child                    c(l);
    std::optional<child_end> end;
    child_options            options;
    options.arguments = {"sh", "-c", "sleep 3 & exit 4"};
    options.on_output = [](std::string_view) {};
    ASSERT_EQ(c.start(options, [&](const child_end &e) { end = e; }), "");
    EXPECT_TRUE(run_until(
        l, [&] { return end.has_value(); }, 1500));
    EXPECT_EQ(end->status, 4);
}

TEST(common_child, a_program_that_is_not_there_is_an_error_and_the_next_one_runs) {
    loop          l;
    child         c(l);
    child_options options;
    options.arguments = {"/nowhere/to/be/found"};
    EXPECT_EQ(c.start(options, nullptr), "no such file or directory");
    EXPECT_FALSE(c.is_running());
    std::optional<child_end> end;
    options.arguments = {"true"};
    EXPECT_EQ(c.start(options, [&](const child_end &e) { end = e; }), "");
    EXPECT_TRUE(run_until(l, [&] { return end.has_value(); }));
}

TEST(common_child, one_that_still_runs_is_killed_with_its_owner) {
    loop l;
    int  pid = 0;
    {
        child         c(l);
        child_options options;
        options.arguments = {"sleep", "1000"};
        ASSERT_EQ(c.start(options, nullptr), "");
        pid = c.pid();
    }
    EXPECT_FALSE(is_alive(pid));
}

// ---- lookups --------------------------------------------------------------------------------------------------------

TEST(common_lookup, an_address_is_its_own_answer) {
    loop                         l;
    lookup                       names(l);
    std::optional<lookup_result> result;
    names.start("192.0.2.7", milliseconds(2000), [&](const lookup_result &r) { result = r; });
    EXPECT_TRUE(run_until(l, [&] { return result.has_value(); }));
    EXPECT_EQ(result->addresses, std::vector<std::string>{"192.0.2.7"});
    EXPECT_EQ(result->error, "");
    EXPECT_FALSE(names.is_running());
}

TEST(common_lookup, a_name_that_does_not_exist_has_an_error) {
    loop                         l;
    lookup                       names(l);
    std::optional<lookup_result> result;
    names.start("no such name", milliseconds(5000), [&](const lookup_result &r) { result = r; });
    EXPECT_TRUE(run_until(l, [&] { return result.has_value(); }));
    EXPECT_TRUE(result->addresses.empty());
    EXPECT_NE(result->error, "");
}

TEST(common_lookup, the_answer_of_a_lookup_that_was_given_up_reaches_nobody) {
    loop l;
    int  answers = 0;
    {
        lookup names(l);
        names.start("192.0.2.7", milliseconds(2000), [&](const lookup_result &) { answers++; });
    }
    lookup names(l);
    names.start("192.0.2.7", milliseconds(2000), [&](const lookup_result &) { answers += 10; });
    names.start("192.0.2.8", milliseconds(2000), [&](const lookup_result &) { answers += 100; });
    EXPECT_TRUE(run_until(l, [&] { return answers >= 100; }));
    run_for(l, 20);
    EXPECT_EQ(answers, 100);
    EXPECT_TRUE(run_until(l, [&] { return !l.is_held(); }));
}

// ---- files ----------------------------------------------------------------------------------------------------------

TEST(common_file_watch, sees_writing_moving_removing_and_a_new_file) {
    char        directory[] = "/tmp/common_loop_test.XXXXXX";
    std::string path        = std::string(mkdtemp(directory)) + "/log";
    loop        l;
    int         changes = 0;
    file_watch  watch(l, path, [&] { changes++; });
    run_for(l, 2);
    auto see = [&](const char *what) {
        EXPECT_TRUE(run_until(l, [&] { return changes > 0; })) << what;
        run_for(l, 20);
        changes = 0;
    };
    write_file(path, "a");
    see("a new file");
    write_file(path, "b", O_APPEND);
    see("more text");
    ASSERT_EQ(rename(path.c_str(), (path + ".1").c_str()), 0);
    see("moved");
    write_file(path, "c");
    see("made anew");
    ASSERT_EQ(unlink(path.c_str()), 0);
    see("removed");
    write_file(path + ".other", "x");
    run_for(l, 30);
    EXPECT_EQ(changes, 0) << "another file of the directory";
}

TEST(common_file_watch, a_directory_that_comes_later_is_found) {
    char        base[]    = "/tmp/common_loop_test.XXXXXX";
    std::string directory = std::string(mkdtemp(base)) + "/later";
    loop        l;
    int         changes = 0;
    file_watch  watch(l, directory + "/log", [&] { changes++; });
    run_for(l, 5);
    ASSERT_EQ(mkdir(directory.c_str(), 0700), 0);
    EXPECT_TRUE(run_until(l, [&] { return changes > 0; }));
    changes = 0;
    write_file(directory + "/log", "x");
    EXPECT_TRUE(run_until(l, [&] { return changes > 0; }));
}

// ---- text -----------------------------------------------------------------------------------------------------------

TEST(common_log, control_characters_never_reach_a_terminal) {
    EXPECT_EQ(printable("plain text"), "plain text");
    EXPECT_EQ(printable("a\x1b[31mred\r\n\t\x7f"), "a\\x1b[31mred\\x0d\\x0a\\x09\\x7f");
    EXPECT_EQ(printable("gr\xc3\xbc\xc3\x9f"), "gr\xc3\xbc\xc3\x9f");
    EXPECT_EQ(printable("\xc2\x9b"), "\\xc2\\x9b") << "a control of the second set";
    EXPECT_EQ(printable("\xe2\x80\xae"), "\\xe2\\x80\\xae") << "turns the direction of writing";
    EXPECT_EQ(printable("\xff\xc0\xaf\xed\xa0\x80"), "\\xff\\xc0\\xaf\\xed\\xa0\\x80") << "no UTF-8";
    EXPECT_EQ(printable("\xc3"), "\\xc3") << "cut";
    EXPECT_EQ(printable(std::string("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(printable("abcdef", 3), "abc...");
}
