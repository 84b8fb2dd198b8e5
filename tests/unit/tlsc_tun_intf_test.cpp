// The TUN interface on the real clone device, in a network namespace of its own. System calls that must fail are made
// to fail by the wrappers below; everything else reaches the kernel.

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "capture.h"
#include "kernel_calls.h"
#include "tlsc_config.h"
#include "tlsc_engine.h"
#include "tlsc_platform.h"
#include "tlsc_tun_intf.h"
#include "tlsc_utils.h"

// ---- the system calls and reports, recorded and made to fail --------------------------------------------------------

namespace {

struct state_report {
    int32_t state;
    int32_t cause;
    int32_t recorded;  // the session's state at that moment
    bool    operator==(const state_report &) const = default;
};

std::deque<int>           open_errors;  // of the clone device; 0 lets one call pass
std::vector<unsigned>     pauses;
std::vector<std::string>  commands;
bool                      shell_is_absent;  // commands are recorded and not run
std::vector<state_report> reports;
std::vector<std::string>  closings;  // "close N" and "forget N" of descriptors above 2
const tlsc_session       *watched_session;

}  // namespace

extern "C" {

int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);

    const int error = strcmp(path, "/dev/net/tun") == 0 ? next_error(open_errors) : 0;
    if (error != 0) {
        errno = error;
        return -1;
    }
    return __real_open(path, flags, mode);
}

int __real_close(int fd);
int __wrap_close(int fd) {
    closings.push_back("close " + std::to_string(fd));
    return __real_close(fd);
}

unsigned __wrap_sleep(unsigned seconds) {
    pauses.push_back(seconds);
    return 0;
}

int __real_system(const char *command);
int __wrap_system(const char *command) {
    commands.push_back(command);
    return shell_is_absent ? 127 << 8 : __real_system(command);
}

int32_t __wrap_tlsc_write_tun_intf_state(int32_t state, int32_t cause) {
    reports.push_back({state, cause, watched_session ? watched_session->tun_state : -1});
    return 1;
}

void __wrap_tlsc_forget_fd_events(int32_t fd) { closings.push_back("forget " + std::to_string(fd)); }

}  // extern "C"

namespace {

int open_clone() {
    const int fd = __real_open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    EXPECT_GT(fd, 0) << "the clone device is needed";
    return fd;
}

size_t open_descriptors() {
    size_t count = 0;
    for (int fd = 0; fd < 1024; ++fd) count += fcntl(fd, F_GETFD) != -1;
    return count;
}

// One value of a real interface.
ifreq query(const char *name, unsigned long request) {
    ifreq record{};
    tlsc_copy_text(record.ifr_name, sizeof(record.ifr_name), name);
    const int sock = __real_socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(__real_ioctl(sock, request, &record), 0) << name << ": " << strerror(errno);
    __real_close(sock);
    return record;
}

int      mtu_of(const char *name) { return query(name, SIOCGIFMTU).ifr_mtu; }
unsigned flags_of(const char *name) { return static_cast<unsigned short>(query(name, SIOCGIFFLAGS).ifr_flags); }
bool     exists(const char *name) { return if_nametoindex(name) != 0; }

size_t count_ioctls(unsigned long request) {
    size_t count = 0;
    for (const ioctl_call &call : ioctl_calls) count += call.request == request;
    return count;
}

void set_name(const char *name) {
    char *field = tlsc_get_config()->tun_interface_name;
    tlsc_copy_text(field, sizeof(tlsc_get_config()->tun_interface_name), name);
}

std::string pointer_text(const void *pointer) {
    char text[32];
    snprintf(text, sizeof(text), "%p", pointer);
    return text;
}

// A session as the tunnel thread prepares it: a fresh descriptor on the clone device, down, no name.
class tlsc_tun_intf : public ::testing::Test {
protected:
    void SetUp() override {
        forget_kernel_calls();
        open_errors.clear();
        pauses.clear();
        commands.clear();
        shell_is_absent = false;
        reports.clear();
        tlsc_ioctl_errno = tlsc_socket_errno = 0;
        tlsc_new_socket_needed               = false;
        tlsc_stats_record                    = tlsc_stats{};

        tlsc_epoll_fd   = epoll_create1(EPOLL_CLOEXEC);
        session.tun_fd  = open_clone();
        watched_session = &session;
        set_name("tunt");
        closings.clear();
    }
    void TearDown() override {
        watched_session = nullptr;
        if (session.tun_fd > 0) __real_close(session.tun_fd);
        __real_close(tlsc_epoll_fd);
        tlsc_epoll_fd = -1;
    }

    void register_tun() {
        epoll_event event{};
        event.events  = EPOLLIN;
        event.data.fd = session.tun_fd;
        ASSERT_EQ(epoll_ctl(tlsc_epoll_fd, EPOLL_CTL_ADD, session.tun_fd, &event), 0);
    }

    void expect_lines(const log_capture &log, const std::vector<std::vector<std::string>> &expected) const {
        const auto lines = log.lines();
        ASSERT_EQ(lines.size(), expected.size());
        for (size_t i = 0; i < lines.size(); ++i)
            EXPECT_TRUE(is_log_line(lines[i], expected[i][0], "tlsc_tun_intf.c", expected[i][1], expected[i][2]))
                << lines[i];
    }

    tlsc_session session{};
    std::string  self = pointer_text(&session);
};

}  // namespace

// ---- creation -------------------------------------------------------------------------------------------------------

TEST_F(tlsc_tun_intf, creation_makes_a_layer_3_interface_with_mtu_1406_that_is_down) {
    log_capture log;
    ASSERT_EQ(tlsc_create_tun(&session), 1);
    EXPECT_EQ(mtu_of("tunt"), 1406);
    EXPECT_EQ(flags_of("tunt") & IFF_UP, 0u);

    ASSERT_FALSE(ioctl_calls.empty());
    EXPECT_EQ(ioctl_calls[0].request, static_cast<unsigned long>(TUNSETIFF));
    EXPECT_EQ(ioctl_calls[0].flags, 0x1001) << "IFF_TUN and IFF_NO_PI, nothing else";
    ifreq attached{};
    ASSERT_EQ(__real_ioctl(session.tun_fd, TUNGETIFF, &attached), 0);
    EXPECT_STREQ(attached.ifr_name, "tunt");

    EXPECT_EQ(session.if_name, tlsc_get_config()->tun_interface_name);
    EXPECT_EQ(tlsc_stats_record.tun_alloc, 1u);
    EXPECT_EQ(tlsc_stats_record.tun_freed, 0u);
    EXPECT_TRUE(pauses.empty());
    EXPECT_TRUE(reports.empty());
    const std::string fd = std::to_string(session.tun_fd);
    expect_lines(log, {{"DEBUG", "tlsc_create_tun", "Creating interface tunt for session " + self},
                       {"DEBUG", "tlsc_tun_alloc", "Creating TUN-INTERFACE with fd = " + fd},
                       {"INFO", "tlsc_tun_alloc", "Successfully set the fd(" + fd + ") for tun-interface tunt"},
                       {"INFO", "tlsc_create_tun", "Successfully set the MTU(1406) for the interface tunt"}});
}

TEST_F(tlsc_tun_intf, creation_for_a_null_session_is_refused) {
    log_capture log;
    EXPECT_EQ(tlsc_create_tun(nullptr), 0);
    expect_lines(log, {{"ERROR", "tlsc_create_tun", "Session is Null"}});
}

TEST_F(tlsc_tun_intf, name_of_more_than_15_characters_is_cut_to_15_in_every_request) {
    set_name("abcdefghijklmnopqrst");
    log_capture log;
    ASSERT_EQ(tlsc_create_tun(&session), 1);
    EXPECT_TRUE(exists("abcdefghijklmno"));
    EXPECT_STREQ(session.if_name, "abcdefghijklmnopqrst");
    ASSERT_EQ(tlsc_chg_tun_state(&session, 1), 1);
    EXPECT_NE(flags_of("abcdefghijklmno") & IFF_UP, 0u);

    ASSERT_EQ(ioctl_calls.size(), 4u);  // attach, MTU, flags read, flags written
    for (const ioctl_call &call : ioctl_calls) EXPECT_EQ(call.name, "abcdefghijklmno");
}

TEST_F(tlsc_tun_intf, name_of_15_characters_is_kept) {
    set_name("abcdefghijklmno");
    log_capture log;
    ASSERT_EQ(tlsc_create_tun(&session), 1);
    EXPECT_TRUE(exists("abcdefghijklmno"));
}

TEST_F(tlsc_tun_intf, busy_name_is_deleted_and_the_second_attempt_succeeds) {
    const int holder = open_clone();
    ifreq     stale{};
    strcpy(stale.ifr_name, "tunt");
    stale.ifr_flags = IFF_TUN | IFF_NO_PI;
    ASSERT_EQ(__real_ioctl(holder, TUNSETIFF, &stale), 0);

    const int   first_fd = session.tun_fd;
    log_capture log;
    ASSERT_EQ(tlsc_create_tun(&session), 1);
    EXPECT_EQ(commands, (std::vector<std::string>{"ip link delete tunt  type tun"}));
    EXPECT_EQ(pauses, (std::vector<unsigned>{1}));
    EXPECT_EQ(reports, (std::vector<state_report>{{0, 0, 0}}));
    EXPECT_EQ(tlsc_stats_record.tun_alloc, 1u);
    EXPECT_EQ(tlsc_stats_record.tun_freed, 1u);
    EXPECT_EQ(session.if_name, tlsc_get_config()->tun_interface_name) << "the deletion between the attempts cleared it";
    EXPECT_EQ(fcntl(session.tun_fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(session.tun_fd, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(mtu_of("tunt"), 1406);
    EXPECT_TRUE(log.has("WARNING", "tlsc_tun_intf.c", "tlsc_tun_alloc",
                        "IOCTL error[16] in setting tun interface tunt, deleting the existing tun interface"));
    EXPECT_TRUE(log.has("WARNING", "tlsc_tun_intf.c", "tlsc_create_tun",
                        "Failed to create interface for session " + self + ", Retrying to create interface..."));
    EXPECT_TRUE(log.has("ERROR", "tlsc_tun_intf.c", "tlsc_tun_delete",
                        "Could not delete the tun-fd(" + std::to_string(first_fd) + ") from epoll-list"));
    EXPECT_FALSE(log.contains("Retry count"));
    EXPECT_FALSE(log.contains("Error cloning")) << "the clone device opened again";

    ASSERT_EQ(tlsc_chg_tun_state(&session, 1), 1) << "the name is there again";
    __real_close(holder);
}

TEST_F(tlsc_tun_intf, five_failed_attempts_are_the_end_and_leave_a_sixth_descriptor_open) {
    for (int i = 0; i < 5; ++i) ioctl_faults.push_back({TUNSETIFF, EINVAL});
    log_capture log;
    EXPECT_EQ(tlsc_create_tun(&session), 0);
    EXPECT_EQ(count_ioctls(TUNSETIFF), 5u);
    EXPECT_EQ(pauses, (std::vector<unsigned>{1, 1, 1, 1, 1}));
    EXPECT_EQ(reports.size(), 5u);
    EXPECT_EQ(tlsc_stats_record.tun_freed, 5u);
    EXPECT_EQ(tlsc_stats_record.tun_alloc, 0u);
    EXPECT_EQ(session.if_name, nullptr) << "there is no interface that it could name";
    EXPECT_TRUE(commands.empty());
    EXPECT_NE(fcntl(session.tun_fd, F_GETFD), -1);
    EXPECT_EQ(log.count("WARNING", "tlsc_tun_intf.c", "tlsc_create_tun",
                        "Failed to create interface for session " + self + ", Retrying to create interface..."),
              5u);
    EXPECT_EQ(log.count("ERROR", "tlsc_tun_intf.c", "tlsc_tun_alloc", "IOCTL error[22] in setting tun interface tunt"),
              5u);
    EXPECT_TRUE(is_log_line(log.lines().back(), "ERROR", "tlsc_tun_intf.c", "tlsc_create_tun",
                            "Retry count(5) over. Failed to create interface for session " + self));
}

TEST_F(tlsc_tun_intf, interface_obtained_on_the_fifth_attempt_still_counts_as_a_failure_and_stays) {
    for (int i = 0; i < 4; ++i) ioctl_faults.push_back({TUNSETIFF, EINVAL});
    log_capture log;
    EXPECT_EQ(tlsc_create_tun(&session), 0);
    EXPECT_EQ(count_ioctls(TUNSETIFF), 5u);
    EXPECT_EQ(count_ioctls(SIOCSIFMTU), 0u);
    EXPECT_EQ(pauses.size(), 4u);
    EXPECT_TRUE(exists("tunt"));
    EXPECT_STREQ(session.if_name, "tunt");
    EXPECT_EQ(tlsc_stats_record.tun_alloc, 0u);
    EXPECT_TRUE(is_log_line(log.lines().back(), "ERROR", "tlsc_tun_intf.c", "tlsc_create_tun",
                            "Retry count(5) over. Failed to create interface for session " + self));
}

TEST_F(tlsc_tun_intf, interface_obtained_on_the_fourth_attempt_counts) {
    for (int i = 0; i < 3; ++i) ioctl_faults.push_back({TUNSETIFF, EINVAL});
    log_capture log;
    EXPECT_EQ(tlsc_create_tun(&session), 1);
    EXPECT_EQ(pauses.size(), 3u);
    EXPECT_EQ(tlsc_stats_record.tun_alloc, 1u);
    EXPECT_EQ(mtu_of("tunt"), 1406);
}

TEST_F(tlsc_tun_intf, clone_device_that_cannot_be_opened_again_leaves_a_negative_descriptor) {
    ioctl_faults = {{TUNSETIFF, EINVAL}};
    open_errors  = {EMFILE, EMFILE, EMFILE, EMFILE, EMFILE};
    log_capture log;
    EXPECT_EQ(tlsc_create_tun(&session), 0);
    EXPECT_EQ(session.tun_fd, -1);
    EXPECT_EQ(log.count("ERROR", "tlsc_tun_intf.c", "tlsc_create_tun", "Error cloning tun interface, errno:24"), 5u);
    EXPECT_EQ(log.count("ERROR", "tlsc_tun_intf.c", "tlsc_tun_alloc", "Invalid tun-fd(-1) received"), 4u);
    EXPECT_EQ(tlsc_stats_record.tun_freed, 1u) << "there was only one descriptor to close";
    EXPECT_EQ(reports.size(), 5u);
}

TEST_F(tlsc_tun_intf, clone_device_that_opens_again_later_is_used) {
    ioctl_faults = {{TUNSETIFF, EINVAL}};
    open_errors  = {ENFILE, 0};
    log_capture log;
    EXPECT_EQ(tlsc_create_tun(&session), 1);
    EXPECT_GT(session.tun_fd, 0);
    EXPECT_EQ(pauses.size(), 2u);
}

TEST_F(tlsc_tun_intf, mtu_failure_in_the_creation_returns_its_errno) {
    ioctl_faults = {{SIOCSIFMTU, EINVAL}};
    log_capture log;
    EXPECT_EQ(tlsc_create_tun(&session), EINVAL);
    EXPECT_EQ(tlsc_stats_record.tun_alloc, 0u);
    EXPECT_TRUE(exists("tunt"));
    EXPECT_TRUE(is_log_line(log.lines().back(), "ERROR", "tlsc_tun_intf.c", "tlsc_create_tun",
                            "Failed to set the MTU(1406) for the interface tunt"));
}

TEST_F(tlsc_tun_intf, creation_leaks_no_control_socket) {
    const size_t before = open_descriptors();
    {
        log_capture log;
        ASSERT_EQ(tlsc_create_tun(&session), 1);
    }
    EXPECT_EQ(open_descriptors(), before);
}

// ---- attaching ------------------------------------------------------------------------------------------------------

TEST_F(tlsc_tun_intf, attaching_refuses_a_null_name_and_a_descriptor_below_1) {
    log_capture log;
    EXPECT_EQ(tlsc_tun_alloc(nullptr, session.tun_fd), 0);
    EXPECT_EQ(tlsc_tun_alloc("tunt", 0), 0);
    EXPECT_EQ(tlsc_tun_alloc("tunt", -1), 0);
    expect_lines(log, {{"ERROR", "tlsc_tun_alloc", "Invalid device name for tun device creation"},
                       {"ERROR", "tlsc_tun_alloc", "Invalid tun-fd(0) received"},
                       {"ERROR", "tlsc_tun_alloc", "Invalid tun-fd(-1) received"}});
    EXPECT_TRUE(ioctl_calls.empty());
}

TEST_F(tlsc_tun_intf, descriptor_1_is_the_lowest_that_is_attached) {
    ioctl_faults = {{TUNSETIFF, EINVAL}};
    log_capture log;
    EXPECT_EQ(tlsc_tun_alloc("tunt", 1), 0);
    EXPECT_EQ(count_ioctls(TUNSETIFF), 1u);
    expect_lines(log, {{"DEBUG", "tlsc_tun_alloc", "Creating TUN-INTERFACE with fd = 1"},
                       {"ERROR", "tlsc_tun_alloc", "IOCTL error[22] in setting tun interface tunt"}});
}

TEST_F(tlsc_tun_intf, attaching_a_descriptor_that_is_no_tun_device_keeps_the_errno) {
    log_capture log;
    const int   fd = __real_open("/dev/null", O_RDWR | O_CLOEXEC);
    EXPECT_EQ(tlsc_tun_alloc("tunt", fd), 0);
    EXPECT_EQ(tlsc_ioctl_errno, ENOTTY);
    EXPECT_TRUE(log.has("ERROR", "tlsc_tun_intf.c", "tlsc_tun_alloc", "IOCTL error[25] in setting tun interface tunt"));
    __real_close(fd);
}

TEST_F(tlsc_tun_intf, busy_name_that_the_shell_would_read_is_not_given_to_it_but_warned_of) {
    for (const char *name : {"a;b$(id)", "-x", "a b", "a&b", "`id`", "a'b", "a\nb", "x|y", "", "t\xC3\xBCn"}) {
        commands.clear();
        ioctl_faults = {{TUNSETIFF, EBUSY}};
        log_capture log;
        EXPECT_EQ(tlsc_tun_alloc(name, session.tun_fd), 0);
        EXPECT_TRUE(commands.empty()) << name;
        EXPECT_EQ(log.messages().back(), std::string("IOCTL error[16] in setting tun interface ") + name +
                                             ", deleting the existing tun interface");
    }
}

TEST_F(tlsc_tun_intf, busy_name_with_any_byte_but_letters_digits_dot_dash_and_underscore_is_not_given_to_the_shell) {
    shell_is_absent = true;
    log_capture log;
    for (int byte = 1; byte < 256; ++byte) {
        const auto one   = static_cast<char>(byte);
        const bool plain = (one >= '0' && one <= '9') || (one >= 'A' && one <= 'Z') || (one >= 'a' && one <= 'z') ||
                           one == '.' || one == '_' || one == '-';
        for (const std::string &name : {std::string("tun") + one, std::string("t") + one + "n"}) {
            commands.clear();
            ioctl_faults = {{TUNSETIFF, EBUSY}};
            EXPECT_EQ(tlsc_tun_alloc(name.c_str(), session.tun_fd), 0);
            EXPECT_EQ(commands.size(), plain ? 1u : 0u) << "byte " << byte;
        }
    }
}

TEST_F(tlsc_tun_intf, busy_name_of_plain_characters_is_given_to_the_shell_in_full) {
    const std::string longest =
        "Az09._-abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQ";  // longer than the 15 of a request
    ioctl_faults = {{TUNSETIFF, EBUSY}};
    log_capture log;
    EXPECT_EQ(tlsc_tun_alloc(longest.c_str(), session.tun_fd), 0);
    EXPECT_EQ(commands, (std::vector<std::string>{"ip link delete " + longest + "  type tun"}));
}

TEST_F(tlsc_tun_intf, command_is_cut_at_99_characters) {
    const std::string endless(200, 'x');
    ioctl_faults = {{TUNSETIFF, EBUSY}};
    log_capture log;
    EXPECT_EQ(tlsc_tun_alloc(endless.c_str(), session.tun_fd), 0);
    ASSERT_EQ(commands.size(), 1u);
    EXPECT_EQ(commands[0].size(), 99u);
}

TEST_F(tlsc_tun_intf, name_with_a_percent_sign_is_printed_as_it_is) {
    set_name("tun%n%s");
    ioctl_faults = {{TUNSETIFF, EINVAL}};
    log_capture log;
    EXPECT_EQ(tlsc_tun_alloc(tlsc_get_config()->tun_interface_name, session.tun_fd), 0);
    EXPECT_TRUE(log.contains("IOCTL error[22] in setting tun interface tun%n%s"));
}

// ---- the shared ioctl outcome ---------------------------------------------------------------------------------------

TEST_F(tlsc_tun_intf, ioctl_outcomes_are_1_minus_1_or_the_errno) {
    struct {
        int     error;
        int32_t result;
        bool    new_socket;
    } const table[] = {{0, 1, false},           {EFAULT, -1, false},     {EBADF, -1, true},
                       {EINVAL, EINVAL, false}, {ENODEV, ENODEV, false}, {EPERM, 1, false}};
    ifreq record{};
    strcpy(record.ifr_name, "lo");
    const int sock = __real_socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    for (const auto &entry : table) {
        ioctl_faults           = {{SIOCGIFMTU, entry.error}};
        tlsc_new_socket_needed = false;
        tlsc_ioctl_errno       = 77;
        EXPECT_EQ(tlsc_ioctl(sock, SIOCGIFMTU, &record), entry.result) << entry.error;
        EXPECT_EQ(tlsc_new_socket_needed, entry.new_socket) << entry.error;
        EXPECT_EQ(tlsc_ioctl_errno, entry.error == 0 ? 77 : entry.error);
    }
    __real_close(sock);
}

TEST_F(tlsc_tun_intf, control_socket_is_a_datagram_socket_that_children_do_not_inherit) {
    const int sock = tlsc_socket_creation("tunt");
    ASSERT_GT(sock, 0);
    int       domain = 0, type = 0;
    socklen_t size = sizeof(int);
    ASSERT_EQ(getsockopt(sock, SOL_SOCKET, SO_DOMAIN, &domain, &size), 0);
    ASSERT_EQ(getsockopt(sock, SOL_SOCKET, SO_TYPE, &type, &size), 0);
    EXPECT_EQ(domain, AF_INET);
    EXPECT_EQ(type, SOCK_DGRAM);
    EXPECT_EQ(fcntl(sock, F_GETFD), FD_CLOEXEC);
    __real_close(sock);
}

TEST_F(tlsc_tun_intf, control_socket_that_cannot_be_made_is_logged_with_the_name) {
    socket_errors = {EMFILE, EMFILE};
    log_capture log;
    EXPECT_EQ(tlsc_socket_creation("tunt"), -1);
    EXPECT_EQ(tlsc_socket_errno, EMFILE);
    EXPECT_EQ(tlsc_socket_creation(nullptr), -1);
    expect_lines(log, {{"ERROR", "tlsc_socket_creation", "Could not open socket for interface: tunt"},
                       {"ERROR", "tlsc_socket_creation", "Null ptr received for name"}});
}

TEST_F(tlsc_tun_intf, request_without_a_record_never_reaches_the_kernel) {
    log_capture log;
    EXPECT_EQ(tlsc_ioctl(3, SIOCGIFFLAGS, nullptr), -1);
    EXPECT_EQ(tlsc_ioctl_errno, EFAULT);
    EXPECT_TRUE(ioctl_calls.empty());
    expect_lines(log, {{"ERROR", "tlsc_ioctl", "Null ptr received for argument"}});
}

// ---- MTU ------------------------------------------------------------------------------------------------------------

TEST_F(tlsc_tun_intf, mtu_of_1500_is_accepted_and_1501_refused) {
    log_capture log;
    ASSERT_EQ(tlsc_create_tun(&session), 1);
    EXPECT_EQ(tlsc_set_tun_mtu("tunt", 1500), 1);
    EXPECT_EQ(mtu_of("tunt"), 1500);
    log.clear();
    EXPECT_EQ(tlsc_set_tun_mtu("tunt", 1501), 0);
    EXPECT_EQ(tlsc_set_tun_mtu(nullptr, 1400), 0);
    EXPECT_EQ(mtu_of("tunt"), 1500);
    expect_lines(log, {{"ERROR", "tlsc_set_tun_mtu",
                        "Either dev_name ptr is NULL, or mtu size is greater than 1500. MTU received = 1501"},
                       {"ERROR", "tlsc_set_tun_mtu",
                        "Either dev_name ptr is NULL, or mtu size is greater than 1500. MTU received = 1400"}});
}

TEST_F(tlsc_tun_intf, mtu_that_the_kernel_refuses_gives_its_errno) {
    log_capture log;
    ASSERT_EQ(tlsc_create_tun(&session), 1);
    log.clear();
    EXPECT_EQ(tlsc_set_tun_mtu("tunt", -5), EINVAL);
    EXPECT_EQ(tlsc_set_tun_mtu("absent0", 1400), ENODEV);
    expect_lines(log, {{"ERROR", "tlsc_set_tun_mtu", "Failed to set mtu size for interface  tunt due to erro[22]"},
                       {"ERROR", "tlsc_set_tun_mtu", "Failed to set mtu size for interface  absent0 due to erro[19]"}});
}

TEST_F(tlsc_tun_intf, mtu_failure_by_efault_announces_a_retry_that_does_not_come) {
    ioctl_faults = {{SIOCSIFMTU, EFAULT}};
    log_capture log;
    EXPECT_EQ(tlsc_set_tun_mtu("tunt", 1400), EFAULT);
    EXPECT_EQ(count_ioctls(SIOCSIFMTU), 1u);
    EXPECT_EQ(socket_types.size(), 1u);
    expect_lines(log, {{"WARNING", "tlsc_set_tun_mtu",
                        "Failed to set mtu size for interface Bad address due to tunt, Retrying to set mtu..."},
                       {"ERROR", "tlsc_set_tun_mtu", "Failed to set mtu size for interface  tunt due to erro[14]"}});
}

TEST_F(tlsc_tun_intf, mtu_warning_has_the_error_text_in_the_names_place_and_the_name_in_the_error_texts) {
    ioctl_faults = {{SIOCSIFMTU, EFAULT}};
    log_capture log;
    EXPECT_EQ(tlsc_set_tun_mtu("NAME", 1400), EFAULT);
    EXPECT_TRUE(is_log_line(log.lines().at(0), "WARNING", "tlsc_tun_intf.c", "tlsc_set_tun_mtu",
                            std::string("Failed to set mtu size for interface ") + strerror(EFAULT) +
                                " due to NAME, Retrying to set mtu..."));
}

TEST_F(tlsc_tun_intf, mtu_failure_by_ebadf_makes_a_new_control_socket) {
    ioctl_faults        = {{SIOCSIFMTU, EBADF}};
    const size_t before = open_descriptors();
    {
        log_capture log;
        EXPECT_EQ(tlsc_set_tun_mtu("tunt", 1400), EBADF);
        EXPECT_EQ(log.messages(),
                  (std::vector<std::string>{
                      "Failed to set mtu size for interface Bad file descriptor due to tunt, Retrying to set mtu...",
                      "Failed to set mtu size for interface  tunt due to erro[9]"}));
    }
    EXPECT_EQ(count_ioctls(SIOCSIFMTU), 1u);
    EXPECT_EQ(socket_types.size(), 2u);
    EXPECT_FALSE(tlsc_new_socket_needed);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(tlsc_tun_intf, mtu_failure_without_a_new_control_socket_returns_the_sockets_errno) {
    ioctl_faults  = {{SIOCSIFMTU, EBADF}};
    socket_errors = {0, ENFILE};
    log_capture log;
    EXPECT_EQ(tlsc_set_tun_mtu("tunt", 1400), ENFILE);
    EXPECT_TRUE(tlsc_new_socket_needed) << "still needed";
    EXPECT_FALSE(log.contains("erro["));
}

TEST_F(tlsc_tun_intf, mtu_without_a_control_socket_returns_the_sockets_errno) {
    socket_errors = {EMFILE};
    log_capture log;
    EXPECT_EQ(tlsc_set_tun_mtu("tunt", 1400), EMFILE);
    EXPECT_TRUE(ioctl_calls.empty());
}

TEST_F(tlsc_tun_intf, mtu_failure_by_eperm_reads_as_success) {
    ioctl_faults = {{SIOCSIFMTU, EPERM}};
    log_capture log;
    EXPECT_EQ(tlsc_set_tun_mtu("tunt", 1400), 1);
    EXPECT_EQ(log.text(), "");
    ioctl_faults = {{SIOCSIFMTU, EPERM}};
    EXPECT_EQ(tlsc_create_tun(&session), 1);
    EXPECT_EQ(tlsc_stats_record.tun_alloc, 1u);
}

// ---- flags ----------------------------------------------------------------------------------------------------------

TEST_F(tlsc_tun_intf, up_and_down_change_the_up_flag_only) {
    log_capture log;
    ASSERT_EQ(tlsc_create_tun(&session), 1);
    ifreq allmulti     = query("tunt", SIOCGIFFLAGS);
    allmulti.ifr_flags = static_cast<short>(allmulti.ifr_flags | IFF_ALLMULTI);
    const int sock     = __real_socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(__real_ioctl(sock, SIOCSIFFLAGS, &allmulti), 0);
    __real_close(sock);
    const unsigned before = flags_of("tunt");
    ASSERT_NE(before & IFF_ALLMULTI, 0u);

    log.clear();
    socket_types.clear();
    EXPECT_EQ(tlsc_tun_up("tunt", 1), 1);
    EXPECT_EQ(flags_of("tunt") & ~static_cast<unsigned>(IFF_RUNNING),
              (before | IFF_UP) & ~static_cast<unsigned>(IFF_RUNNING));
    EXPECT_EQ(tlsc_tun_up("tunt", 0), 1);
    EXPECT_EQ(flags_of("tunt") & ~static_cast<unsigned>(IFF_RUNNING), before & ~static_cast<unsigned>(IFF_RUNNING));
    EXPECT_EQ(tlsc_tun_up("tunt", -3), 1) << "anything but zero is up";
    EXPECT_NE(flags_of("tunt") & IFF_UP, 0u);
    EXPECT_EQ(socket_types.size(), 6u) << "one socket to read, one to write";
    expect_lines(log, {{"DEBUG", "tlsc_tun_up", "Interface tunt is successfully up"},
                       {"DEBUG", "tlsc_tun_up", "Interface tunt is successfully down"},
                       {"DEBUG", "tlsc_tun_up", "Interface tunt is successfully up"}});
}

TEST_F(tlsc_tun_intf, flags_of_an_absent_interface_give_its_errno) {
    log_capture log;
    EXPECT_EQ(tlsc_tun_up("absent0", 1), ENODEV);
    EXPECT_EQ(count_ioctls(SIOCSIFFLAGS), 0u);
    expect_lines(log, {{"ERROR", "tlsc_tun_up", "Failed to get flags for interface  absent0 due to error[19]"}});
}

TEST_F(tlsc_tun_intf, flags_that_cannot_be_read_or_written_use_the_same_texts) {
    for (unsigned long request : {SIOCGIFFLAGS, SIOCSIFFLAGS})
        for (int error : {EFAULT, EBADF}) {
            ioctl_calls.clear();
            socket_types.clear();
            ioctl_faults        = {{request, error}};
            const size_t before = open_descriptors();
            {
                log_capture log;
                EXPECT_EQ(tlsc_tun_up("lo", 1), error);
                expect_lines(log,
                             {{"WARNING", "tlsc_tun_up",
                               std::string("Failed to get flags for interface lo due to ") + strerror(error) +
                                   ", Retrying to get flags..."},
                              {"ERROR", "tlsc_tun_up",
                               "Failed to get flags for interface  lo due to error[" + std::to_string(error) + "]"}});
            }
            EXPECT_EQ(count_ioctls(request), 1u) << "one pass";
            const size_t passes = request == SIOCGIFFLAGS ? 1 : 2;
            EXPECT_EQ(socket_types.size(), passes + (error == EBADF ? 1 : 0));
            EXPECT_FALSE(tlsc_new_socket_needed);
            EXPECT_EQ(open_descriptors(), before);
        }
}

TEST_F(tlsc_tun_intf, flags_without_a_control_socket_return_the_sockets_errno) {
    log_capture log;
    socket_errors = {EMFILE};
    EXPECT_EQ(tlsc_tun_up("lo", 1), EMFILE);
    EXPECT_TRUE(ioctl_calls.empty());
    socket_errors = {0, ENFILE};
    EXPECT_EQ(tlsc_tun_up("lo", 1), ENFILE) << "none for the write";
    EXPECT_EQ(count_ioctls(SIOCSIFFLAGS), 0u);
    ioctl_faults  = {{SIOCGIFFLAGS, EBADF}};
    socket_errors = {0, ENOBUFS};
    EXPECT_EQ(tlsc_tun_up("lo", 1), ENOBUFS) << "none to replace the bad one";
    EXPECT_EQ(count_ioctls(SIOCSIFFLAGS), 0u);
}

TEST_F(tlsc_tun_intf, control_socket_refused_by_eperm_writes_no_flags) {
    socket_errors = {EPERM};
    log_capture log;
    EXPECT_EQ(tlsc_tun_up("lo", 1), 1) << "the errno, which reads as success";
    EXPECT_TRUE(ioctl_calls.empty());
}

TEST_F(tlsc_tun_intf, flags_refused_by_eperm_read_as_success) {
    ioctl_faults = {{SIOCSIFFLAGS, EPERM}};
    log_capture log;
    EXPECT_EQ(tlsc_tun_up("lo", 1), 1);
    expect_lines(log, {{"DEBUG", "tlsc_tun_up", "Interface lo is successfully up"}});
}

TEST_F(tlsc_tun_intf, flags_of_a_null_name_are_refused) {
    log_capture log;
    EXPECT_EQ(tlsc_tun_up(nullptr, 1), 0);
    expect_lines(log, {{"ERROR", "tlsc_tun_up", "Null ptr received for dev_name"}});
}

// ---- state ----------------------------------------------------------------------------------------------------------

TEST_F(tlsc_tun_intf, state_change_is_reported_before_it_is_recorded) {
    log_capture log;
    ASSERT_EQ(tlsc_create_tun(&session), 1);
    log.clear();
    EXPECT_EQ(tlsc_chg_tun_state(&session, 1), 1);
    EXPECT_EQ(session.tun_state, 1);
    EXPECT_NE(flags_of("tunt") & IFF_UP, 0u);
    EXPECT_EQ(tlsc_chg_tun_state(&session, 0), 1);
    EXPECT_EQ(session.tun_state, 0);
    EXPECT_EQ(flags_of("tunt") & IFF_UP, 0u);
    EXPECT_EQ(reports, (std::vector<state_report>{{1, 0, 0}, {0, 0, 1}}));
    expect_lines(log, {{"DEBUG", "tlsc_tun_up", "Interface tunt is successfully up"},
                       {"INFO", "tlsc_chg_tun_state", "TUN-INTF is UP!!"},
                       {"DEBUG", "tlsc_tun_up", "Interface tunt is successfully down"},
                       {"INFO", "tlsc_chg_tun_state", "TUN-INTF is DOWN!!"}});
}

TEST_F(tlsc_tun_intf, state_that_is_reached_already_needs_no_ioctl_and_no_report) {
    session.if_name = "tunt";
    log_capture log;
    EXPECT_EQ(tlsc_chg_tun_state(&session, 0), 1);
    session.tun_state = 1;
    EXPECT_EQ(tlsc_chg_tun_state(&session, 1), 1);
    EXPECT_TRUE(ioctl_calls.empty());
    EXPECT_TRUE(reports.empty());
    expect_lines(log, {{"DEBUG", "tlsc_chg_tun_state", "Tun-interface is already in same state as requested(0)"},
                       {"DEBUG", "tlsc_chg_tun_state", "Tun-interface is already in same state as requested(1)"}});
}

TEST_F(tlsc_tun_intf, state_change_that_fails_clears_the_name_and_the_next_fails_fast) {
    session.if_name = "absent0";
    log_capture log;
    EXPECT_EQ(tlsc_chg_tun_state(&session, 1), ENODEV);
    EXPECT_EQ(session.if_name, nullptr);
    EXPECT_EQ(session.tun_state, 0);
    EXPECT_TRUE(reports.empty());
    EXPECT_EQ(tlsc_chg_tun_state(&session, 1), 0);
    expect_lines(log, {{"ERROR", "tlsc_tun_up", "Failed to get flags for interface  absent0 due to error[19]"},
                       {"ERROR", "tlsc_chg_tun_state", "Could not change the tun-interface(absent0) state"},
                       {"ERROR", "tlsc_chg_tun_state", "Session or ifname is Null"}});
}

TEST_F(tlsc_tun_intf, state_change_without_a_control_socket_returns_the_last_ioctl_errno) {
    tlsc_ioctl_errno = EXDEV;
    socket_errors    = {EMFILE};
    session.if_name  = "tunt";
    log_capture log;
    EXPECT_EQ(tlsc_chg_tun_state(&session, 1), EXDEV);
    EXPECT_EQ(session.if_name, nullptr);
}

TEST_F(tlsc_tun_intf, state_change_of_a_null_session_is_refused) {
    log_capture log;
    EXPECT_EQ(tlsc_chg_tun_state(nullptr, 1), 0);
    expect_lines(log, {{"ERROR", "tlsc_chg_tun_state", "Session or ifname is Null"}});
}

// ---- deletion -------------------------------------------------------------------------------------------------------

TEST_F(tlsc_tun_intf, deletion_reports_with_its_cause_closes_and_forgets_the_interface) {
    log_capture log;
    ASSERT_EQ(tlsc_create_tun(&session), 1);
    ASSERT_EQ(tlsc_chg_tun_state(&session, 1), 1);
    register_tun();
    reports.clear();
    closings.clear();
    log.clear();
    const std::string fd = std::to_string(session.tun_fd);
    tlsc_tun_delete(&session, TLSC_DOWN_PTHREAD);

    EXPECT_EQ(reports, (std::vector<state_report>{{0, 8, 1}}));
    EXPECT_EQ(closings, (std::vector<std::string>{"close " + fd, "forget " + fd}));
    EXPECT_EQ(session.tun_fd, -1);
    EXPECT_EQ(session.if_name, nullptr);
    EXPECT_EQ(session.tun_state, 0);
    EXPECT_EQ(tlsc_stats_record.tun_freed, 1u);
    EXPECT_FALSE(exists("tunt")) << "the interface goes with its descriptor";
    EXPECT_FALSE(log.contains("Could not delete"));
}

TEST_F(tlsc_tun_intf, deletion_of_a_descriptor_that_epoll_does_not_know_goes_on) {
    log_capture       log;
    const std::string fd = std::to_string(session.tun_fd);
    tlsc_tun_delete(&session, 0);
    EXPECT_TRUE(log.has("ERROR", "tlsc_tun_intf.c", "tlsc_tun_delete",
                        "Could not delete the tun-fd(" + fd + ") from epoll-list"));
    EXPECT_EQ(session.tun_fd, -1);
    EXPECT_EQ(tlsc_stats_record.tun_freed, 1u);
}

TEST_F(tlsc_tun_intf, deletion_without_a_descriptor_still_reports_and_clears_the_name) {
    __real_close(session.tun_fd);
    for (int32_t none : {-1, 0}) {
        session.tun_fd    = none;
        session.if_name   = "tunt";
        session.tun_state = 1;
        reports.clear();
        log_capture log;
        tlsc_tun_delete(&session, 3);
        EXPECT_EQ(reports, (std::vector<state_report>{{0, 3, 1}}));
        EXPECT_EQ(session.if_name, nullptr);
        EXPECT_EQ(session.tun_state, 0);
        EXPECT_EQ(session.tun_fd, none);
        EXPECT_EQ(tlsc_stats_record.tun_freed, 0u);
        EXPECT_EQ(log.text(), "");
    }
}

TEST_F(tlsc_tun_intf, deletion_closes_every_descriptor_above_0) {
    __real_close(session.tun_fd);
    log_capture log;
    const int   shown = dup(STDOUT_FILENO);
    session.tun_fd    = STDOUT_FILENO;
    tlsc_tun_delete(&session, 0);
    EXPECT_EQ(dup2(shown, STDOUT_FILENO), STDOUT_FILENO);
    __real_close(shown);
    EXPECT_EQ(closings, (std::vector<std::string>{"close 1", "forget 1"}));
    EXPECT_EQ(session.tun_fd, -1);
    EXPECT_EQ(tlsc_stats_record.tun_freed, 1u);
}

TEST_F(tlsc_tun_intf, deletion_of_a_null_session_reports_nothing) {
    log_capture log;
    tlsc_tun_delete(nullptr, 0);
    EXPECT_TRUE(reports.empty());
    expect_lines(log, {{"ERROR", "tlsc_tun_delete", "Null ptr received for sess"}});
}

// ---- address --------------------------------------------------------------------------------------------------------

namespace {

tlsc_addr address(const char *text) {
    tlsc_addr record{};
    EXPECT_EQ(tlsc_parse_addr(text, &record), 1);
    return record;
}

// As the log prints it: the stored 32 bits in hexadecimal.
std::string stored_hex(const char *text) {
    char hex[16];
    snprintf(hex, sizeof(hex), "%x", inet_addr(text));
    return hex;
}

}  // namespace

TEST_F(tlsc_tun_intf, address_is_assigned_without_a_netmask_request) {
    log_capture log;
    ASSERT_EQ(tlsc_create_tun(&session), 1);
    ioctl_calls.clear();
    log.clear();
    const tlsc_addr addr = address("10.20.30.40");
    EXPECT_EQ(tlsc_add_tun_addr("tunt", &addr, 24), 1);
    const ifreq assigned = query("tunt", SIOCGIFADDR);
    sockaddr_in ipv4{};
    memcpy(&ipv4, &assigned.ifr_addr, sizeof(ipv4));
    EXPECT_EQ(ipv4.sin_addr.s_addr, inet_addr("10.20.30.40"));
    ASSERT_EQ(ioctl_calls.size(), 1u);
    EXPECT_EQ(ioctl_calls[0].request, static_cast<unsigned long>(SIOCSIFADDR));
    expect_lines(log, {{"INFO", "tlsc_add_tun_addr",
                        "Successfully changed addr and netmask for Interface(tunt). Addr = " +
                            stored_hex("10.20.30.40") + "u, Netmask: 255.255.255.0"}});
}

TEST_F(tlsc_tun_intf, address_with_prefix_length_0_only_warns_and_32_is_the_last_accepted) {
    log_capture log;
    ASSERT_EQ(tlsc_create_tun(&session), 1);
    log.clear();
    const tlsc_addr addr = address("10.20.30.40");
    EXPECT_EQ(tlsc_add_tun_addr("tunt", &addr, 0), 1);
    EXPECT_TRUE(log.has("WARNING", "tlsc_tun_intf.c", "tlsc_add_tun_addr", "Prefix length is zero"));
    EXPECT_EQ(tlsc_add_tun_addr("tunt", &addr, 32), 1);
    EXPECT_EQ(tlsc_add_tun_addr("tunt", &addr, 33), 0);
    EXPECT_TRUE(is_log_line(log.lines().back(), "ERROR", "tlsc_tun_intf.c", "tlsc_add_tun_addr",
                            "Invalid Prefix length received: 33, which is greater than 32"));
}

TEST_F(tlsc_tun_intf, address_of_an_absent_interface_fails_and_eperm_is_no_success_here) {
    const tlsc_addr addr = address("10.20.30.40");
    log_capture     log;
    EXPECT_EQ(tlsc_add_tun_addr("absent0", &addr, 24), 0);
    EXPECT_EQ(tlsc_ioctl_errno, ENODEV);
    ioctl_faults = {{SIOCSIFADDR, EPERM}};
    EXPECT_EQ(tlsc_add_tun_addr("absent0", &addr, 24), 0);
    expect_lines(log, {{"ERROR", "tlsc_add_tun_addr", "Failed to set intf addr(" + stored_hex("10.20.30.40") + "u)"},
                       {"ERROR", "tlsc_add_tun_addr", "Failed to set intf addr(" + stored_hex("10.20.30.40") + "u)"}});
}

TEST_F(tlsc_tun_intf, address_of_another_kind_is_logged_and_still_returns_1) {
    log_capture log;
    tlsc_addr   addr = address("2001:db8::1");
    EXPECT_EQ(tlsc_add_tun_addr("tunt", &addr, 64), 1);
    addr.kind = 7;
    EXPECT_EQ(tlsc_add_tun_addr("tunt", &addr, 64), 1);
    EXPECT_TRUE(ioctl_calls.empty());
    expect_lines(log, {{"ERROR", "tlsc_add_tun_addr", "IPv6 address assignment to interface not supported yet."},
                       {"ERROR", "tlsc_add_tun_addr", "Invalid addr-type(7) while setting interface IP"}});
}

TEST_F(tlsc_tun_intf, address_refuses_null_arguments_and_reports_a_missing_socket) {
    const tlsc_addr addr = address("10.20.30.40");
    log_capture     log;
    EXPECT_EQ(tlsc_add_tun_addr(nullptr, &addr, 24), 0);
    EXPECT_EQ(tlsc_add_tun_addr("tunt", nullptr, 24), 0);
    socket_errors = {EMFILE};
    EXPECT_EQ(tlsc_add_tun_addr("tunt", &addr, 24), EMFILE);
    EXPECT_EQ(tlsc_socket_errno, EMFILE);
    expect_lines(log, {{"ERROR", "tlsc_add_tun_addr", "Null ptr received for dev_name/addr"},
                       {"ERROR", "tlsc_add_tun_addr", "Null ptr received for dev_name/addr"},
                       {"ERROR", "tlsc_add_tun_addr", "Error creating socket for dev tunt for ip addr assignment"}});
}

TEST_F(tlsc_tun_intf, address_closes_its_socket_on_every_path) {
    const size_t before = open_descriptors();
    {
        log_capture log;
        tlsc_addr   addr = address("10.20.30.40");
        tlsc_add_tun_addr("lo", &addr, 33);
        tlsc_add_tun_addr("absent0", &addr, 24);
        addr.kind = 2;
        tlsc_add_tun_addr("lo", &addr, 24);
        addr.kind = 0;
        tlsc_add_tun_addr("lo", &addr, 24);
    }
    EXPECT_EQ(open_descriptors(), before);
}
