// The two FIFOs and the message catalogue.

#include "tlsc_wlc.h"

#include <atomic>
#include <cstdarg>
#include <functional>
#include <set>
#include <thread>

#include <sys/file.h>
#include <sys/wait.h>

#include "capture.h"
#include "wlc_controller.h"

namespace {

constexpr char source[]     = "tlsc_wlc.c";
constexpr char plain_path[] = "../wlc/tlsc_wlc.c";

// What the client asks the system for, and what the system shall refuse.
mode_t mask_at_mkfifo;
int    mkfifo_error;   // errno of mkfifo, 0 for the real call
int    atexit_result;  // non-zero: refused
void (*at_exit)();     // the handler asked for last
int              inbound_flags;
std::atomic<int> outbound_flags;
int              inbound_open_error;
int              last_inbound_fd;
std::atomic<int> last_outbound_fd;
ssize_t          written_instead;  // bytes that the write of a message takes, 0 for all, below 0 for an error
int              refused_close;    // the descriptor whose close fails, -1 for none

}  // namespace

extern "C" {
int     __real_mkfifo(const char *path, mode_t mode);
int     __real_open(const char *path, int flags, ...);
int     __real_close(int fd);
ssize_t __real_write(int fd, const void *bytes, size_t size);
int     __real_atexit(void (*handler)());

int __wrap_mkfifo(const char *path, mode_t mode) {
    if (strcmp(path, to_client_fifo) != 0) return __real_mkfifo(path, mode);
    mask_at_mkfifo = umask(0);
    (void)umask(mask_at_mkfifo);
    if (mkfifo_error == 0) return __real_mkfifo(path, mode);
    errno = mkfifo_error;
    return -1;
}

int __wrap_open(const char *path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    if (strcmp(path, to_client_fifo) == 0 && (flags & O_ACCMODE) == O_RDONLY) {
        inbound_flags = flags;
        if (inbound_open_error != 0) {
            errno = inbound_open_error;
            return -1;
        }
        return last_inbound_fd = __real_open(path, flags);
    }
    if (strcmp(path, from_client_fifo) == 0 && (flags & O_ACCMODE) == O_WRONLY) {
        outbound_flags          = flags;
        return last_outbound_fd = __real_open(path, flags);
    }
    return __real_open(path, flags, mode);
}

ssize_t __wrap_write(int fd, const void *bytes, size_t size) {
    if (size == message_size && written_instead != 0) {
        if (written_instead < 0) {
            errno = EPIPE;
            return -1;
        }
        return __real_write(fd, bytes, static_cast<size_t>(written_instead));
    }
    return __real_write(fd, bytes, size);
}

int __wrap_close(int fd) {
    if (refused_close < 0 || fd != refused_close) return __real_close(fd);
    errno = EIO;
    return -1;
}

int __wrap_atexit(void (*handler)()) {
    at_exit = handler;
    return atexit_result;
}
}

class wlc_fifo : public controller_test {
protected:
    void SetUp() override {
        controller_test::SetUp();
        mkfifo_error       = 0;
        atexit_result      = 0;
        at_exit            = nullptr;
        inbound_open_error = 0;
        written_instead    = 0;
        refused_close      = -1;
    }
    void TearDown() override {
        refused_close = -1;
        tlscWlcSetBootupDbgFlags(0);
        (void)tlscWlcIpcCleanup();
        controller_test::TearDown();
    }
};

// ---- before anything is opened --------------------------------------------------------------------------------------

TEST_F(wlc_fifo, clean_up_before_any_start_has_nothing_to_close) {
    log_capture log;
    EXPECT_EQ(tlscWlcCleanUp(), 1);
    EXPECT_EQ(log.messages(),
              (std::vector<std::string>{"tlscWlcCleanUp()", "tlscWlcIpcCleanup() - on TLS Client FIFO cleanup "}));
}

// ---- the inbound FIFO -----------------------------------------------------------------------------------------------

TEST_F(wlc_fifo, inbound_fifo_gets_mode_0620_whatever_the_mask_and_the_mask_returns) {
    const mode_t old_mask = umask(0077);
    log_capture  log;
    EXPECT_EQ(openWlcToTlscFifo(), 1);
    EXPECT_EQ(umask(old_mask), 0077u);
    EXPECT_EQ(mask_at_mkfifo, 0u);

    struct stat st {};
    ASSERT_EQ(stat(to_client_fifo, &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 400u);
    const std::vector<std::string> expected = {
        "openWlcToTlscFifo():",
        "openWlcToTlscFifo() - Create /tmp/wlc-to-tlsc-fifo FIFO success",
        "openWlcToTlscFifo() - Open /tmp/wlc-to-tlsc-fifo FIFO in O_RDONLY | O_NONBLOCK mode success",
    };
    EXPECT_EQ(log.messages(), expected);
    for (const std::string &message : expected) EXPECT_TRUE(log.has("DEBUG", source, "openWlcToTlscFifo", message));
    EXPECT_EQ(at_exit, tlscWlcDelFifo);
}

TEST_F(wlc_fifo, inbound_fifo_is_opened_non_blocking_and_not_inherited) {
    EXPECT_EQ(openWlcToTlscFifo(), 1);
    EXPECT_EQ(inbound_flags & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(inbound_flags & (O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC), O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
}

TEST_F(wlc_fifo, existing_fifo_is_taken_as_it_is) {
    ASSERT_EQ(mkfifo(to_client_fifo, 0600), 0);
    log_capture log;
    EXPECT_EQ(openWlcToTlscFifo(), 1);
    EXPECT_TRUE(log.has("DEBUG", source, "openWlcToTlscFifo",
                        "openWlcToTlscFifo() - Create /tmp/wlc-to-tlsc-fifo FIFO success"));
    struct stat st {};
    ASSERT_EQ(stat(to_client_fifo, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    send(make_message(1));
    EXPECT_EQ(readFromTlscFifo(), 1);
}

TEST_F(wlc_fifo, what_is_no_fifo_fails_to_open_in_both_directions) {
    const std::string text = " FIFO failed in O_RDONLY | O_NONBLOCK mode error:Invalid argument";
    for (const bool is_directory : {false, true}) {
        log_capture log;
        if (is_directory) ASSERT_EQ(mkdir(to_client_fifo, 0700), 0);
        else write_file(to_client_fifo, make_message(1));
        EXPECT_EQ(openWlcToTlscFifo(), 0);
        EXPECT_EQ(readFromTlscFifo(), 0);
        EXPECT_TRUE(
            log.has("ERROR", source, "openWlcToTlscFifo", "openWlcToTlscFifo() - Open /tmp/wlc-to-tlsc-fifo" + text));
        EXPECT_EQ(tlscWlcIpcCleanup(), 1);
        (void)unlink(to_client_fifo);
        (void)rmdir(to_client_fifo);
    }

    log_capture log;
    write_file(from_client_fifo, "untouched");
    EXPECT_EQ(tlscPostMsgToWlc(1), 0);
    EXPECT_EQ(read_file(from_client_fifo), "untouched");
    EXPECT_TRUE(log.has(
        "ERROR", source, "tlscWriteToWLC",
        "tlscWriteToWLC() - on TLS Client proc, Open /tmp/tlsc-to-wlc-fifo FIFO failed in O_WRONLY | O_NONBLOCK mode error:Invalid argument"));
}

TEST_F(wlc_fifo, fifo_that_could_not_be_opened_is_tried_again_until_the_clean_up) {
    log_capture log;
    write_file(to_client_fifo, "in the way");
    EXPECT_EQ(tlscWlcInit(), 1);
    log.clear();
    EXPECT_EQ(readFromTlscFifo(), 0);
    EXPECT_EQ(log.text(), "") << "it was told once";
    unlink(to_client_fifo);
    EXPECT_EQ(readFromTlscFifo(), 0);
    EXPECT_EQ(log.messages(), (std::vector<std::string>{"openWlcToTlscFifo() - Open /tmp/wlc-to-tlsc-fifo FIFO in "
                                                        "O_RDONLY | O_NONBLOCK mode success"}));
    EXPECT_EQ(at_exit, tlscWlcDelFifo);
    send(make_message(37));
    EXPECT_EQ(wlcTlscFifoHandler(), -2) << "the order to end arrives";

    EXPECT_EQ(tlscWlcCleanUp(), 1);
    unlink(to_client_fifo);
    EXPECT_EQ(readFromTlscFifo(), 0);
    EXPECT_FALSE(exists(to_client_fifo));
}

namespace {

// Another daemon in a process of its own: it opens the FIFO, runs the work and ends in order. Returns its status.
int other_daemon(const std::function<int()> &work) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        (void)tlscWlcIpcCleanup();
        _exit(work());
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TEST_F(wlc_fifo, second_daemon_says_that_the_fifo_is_read_and_leaves_it_to_the_first) {
    const int held = [] {
        (void)__real_mkfifo(to_client_fifo, 0620);
        return __real_open(to_client_fifo, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    }();
    ASSERT_EQ(flock(held, LOCK_EX | LOCK_NB), 0);  // as the first daemon holds it

    log_capture log;
    EXPECT_EQ(openWlcToTlscFifo(), 1);
    EXPECT_TRUE(log.has("ERROR", source, "openWlcToTlscFifo",
                        "openWlcToTlscFifo() - /tmp/wlc-to-tlsc-fifo FIFO is already read by another process"));
    for (const bool in_order : {false, true}) {
        if (in_order) (void)tlscWlcCleanUp();
        log.clear();
        tlscWlcDelFifo();
        EXPECT_TRUE(exists(to_client_fifo));
        EXPECT_EQ(log.messages(), (std::vector<std::string>{"Cleanup TLS Client WLC FIFO",
                                                            "tlscWlcDelFifo() - /tmp/wlc-to-tlsc-fifo "
                                                            "FIFO is left to the process that reads it"}));
    }
    __real_close(held);
    tlscWlcDelFifo();
    EXPECT_FALSE(exists(to_client_fifo));
}

TEST_F(wlc_fifo, first_daemon_stays_reachable_when_a_second_one_ends) {
    ASSERT_EQ(openWlcToTlscFifo(), 1);
    EXPECT_EQ(other_daemon([] {
                  tlsc_log_dest = LOG_DEST_BOTH + 1;  // silent
                  if (openWlcToTlscFifo() != 1) return 1;
                  (void)tlscWlcCleanUp();
                  tlscWlcDelFifo();
                  return 0;
              }),
              0);
    ASSERT_TRUE(exists(to_client_fifo));
    send(make_message(1));
    EXPECT_EQ(readFromTlscFifo(), 1);
}

TEST_F(wlc_fifo, second_daemon_makes_the_fifo_anew_when_the_first_one_took_it_along) {
    (void)__real_mkfifo(to_client_fifo, 0620);
    const int held = __real_open(to_client_fifo, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_EQ(flock(held, LOCK_EX | LOCK_NB), 0);
    log_capture log;
    ASSERT_EQ(openWlcToTlscFifo(), 1);
    EXPECT_EQ(readFromTlscFifo(), 0);
    unlink(to_client_fifo);
    __real_close(held);
    EXPECT_EQ(readFromTlscFifo(), 0);
    ASSERT_TRUE(exists(to_client_fifo));
    send(make_message(1));
    EXPECT_EQ(readFromTlscFifo(), 1);
    tlscWlcDelFifo();
    EXPECT_FALSE(exists(to_client_fifo)) << "now it is this one's own";
}

TEST_F(wlc_fifo, clean_up_wipes_the_key_of_the_parameter_block) {
    wlcSecTunProcessConf("psk_key", "hush");
    ASSERT_STREQ(tlscWlcGetPskKey(), "hush");
    EXPECT_EQ(tlscWlcCleanUp(), 1);
    for (size_t i = 0; i < 64; ++i) EXPECT_EQ(tlscWlcGetPskKey()[i], '\0');
}

TEST_F(wlc_fifo, link_in_the_place_of_the_inbound_fifo_is_not_followed) {
    ASSERT_EQ(mkfifo("/tmp/elsewhere", 0600), 0);
    ASSERT_EQ(symlink("/tmp/elsewhere", to_client_fifo), 0);
    log_capture log;
    EXPECT_EQ(openWlcToTlscFifo(), 0);
    EXPECT_TRUE(log.has(
        "ERROR", source, "openWlcToTlscFifo",
        "openWlcToTlscFifo() - Open /tmp/wlc-to-tlsc-fifo FIFO failed in O_RDONLY | O_NONBLOCK mode error:Too many levels of symbolic links"));
    unlink("/tmp/elsewhere");
}

TEST_F(wlc_fifo, fifo_that_cannot_be_created_is_reported) {
    mkfifo_error = EACCES;
    log_capture log;
    EXPECT_EQ(openWlcToTlscFifo(), 0);
    EXPECT_TRUE(log.has("ERROR", source, "openWlcToTlscFifo",
                        "openWlcToTlscFifo() - Create /tmp/wlc-to-tlsc-fifo FIFO failed, error:Permission denied"));
    EXPECT_EQ(at_exit, nullptr);
    EXPECT_EQ(readFromTlscFifo(), 0);
}

TEST_F(wlc_fifo, fifo_that_cannot_be_opened_is_reported) {
    inbound_open_error = EMFILE;
    log_capture log;
    EXPECT_EQ(openWlcToTlscFifo(), 0);
    EXPECT_TRUE(log.has(
        "ERROR", source, "openWlcToTlscFifo",
        "openWlcToTlscFifo() - Open /tmp/wlc-to-tlsc-fifo FIFO failed in O_RDONLY | O_NONBLOCK mode error:Too many open files"));
    EXPECT_EQ(readFromTlscFifo(), 0);
}

TEST_F(wlc_fifo, refused_exit_handler_is_reported_and_the_fifo_opened_all_the_same) {
    atexit_result = -1;
    log_capture log;
    EXPECT_EQ(openWlcToTlscFifo(), 1);
    EXPECT_TRUE(
        log.has("ERROR", source, "openWlcToTlscFifo", "openWlcToTlscFifo() - Install delete FIFO handler failed"));
}

// ---- reading --------------------------------------------------------------------------------------------------------

TEST_F(wlc_fifo, empty_fifo_reads_nothing_at_once_with_and_without_a_writer) {
    ASSERT_EQ(openWlcToTlscFifo(), 1);
    log_capture log;
    EXPECT_EQ(readFromTlscFifo(), 0);
    const int writer = open(to_client_fifo, O_WRONLY | O_NONBLOCK);
    ASSERT_GE(writer, 0);
    EXPECT_EQ(readFromTlscFifo(), 0);
    close(writer);
    EXPECT_EQ(log.text(), "");
}

TEST_F(wlc_fifo, whole_message_is_read_and_logged) {
    ASSERT_EQ(openWlcToTlscFifo(), 1);
    send(make_message(29) + make_message(0xfffffffe));
    log_capture log;
    EXPECT_EQ(readFromTlscFifo(), 1);
    EXPECT_EQ(readFromTlscFifo(), 1);
    EXPECT_EQ(readFromTlscFifo(), 0);
    EXPECT_TRUE(log.has("DEBUG", source, "readFromTlscFifo",
                        "readFromTlscFifo() -on TLS client proc, read success,Rcvd message, msgId=29"));
    EXPECT_TRUE(log.has("DEBUG", source, "readFromTlscFifo",
                        "readFromTlscFifo() -on TLS client proc, read success,Rcvd message, msgId=-2"));
    EXPECT_EQ(log.entries().size(), 2u);
}

TEST_F(wlc_fifo, message_of_519_bytes_is_lost_silently_and_the_next_one_is_read) {
    ASSERT_EQ(openWlcToTlscFifo(), 1);
    send(make_message(1).substr(0, 519));
    log_capture log;
    EXPECT_EQ(readFromTlscFifo(), 0);
    EXPECT_EQ(log.text(), "");
    send(make_message(20));
    EXPECT_EQ(readFromTlscFifo(), 1);
    EXPECT_TRUE(log.contains("msgId=20"));
}

TEST_F(wlc_fifo, pieces_of_any_other_length_are_lost_silently_up_to_the_next_message) {
    ASSERT_EQ(openWlcToTlscFifo(), 1);
    const struct {
        size_t size;      // of what is written at once
        int    messages;  // found in it
    } table[] = {{1, 0}, {4, 0}, {8, 0}, {260, 0}, {519, 0}, {521, 1}, {1039, 1}, {1041, 2}};
    for (const auto &entry : table) {
        log_capture log;
        send((make_message(1, std::string(512, '\xff')) + make_message(1) + make_message(1)).substr(0, entry.size));
        for (int i = 0; i < entry.messages; ++i) EXPECT_EQ(readFromTlscFifo(), 1) << entry.size;
        EXPECT_EQ(readFromTlscFifo(), 0) << entry.size;
        EXPECT_EQ(log.entries().size(), static_cast<size_t>(entry.messages));

        log.clear();
        send(make_message(35));
        EXPECT_EQ(readFromTlscFifo(), 1) << entry.size;
        EXPECT_TRUE(log.has("DEBUG", source, "readFromTlscFifo",
                            "readFromTlscFifo() -on TLS client proc, read success,Rcvd message, msgId=35"));
    }
}

TEST_F(wlc_fifo, reading_without_a_fifo_reads_nothing) { EXPECT_EQ(readFromTlscFifo(), 0); }

// ---- sending --------------------------------------------------------------------------------------------------------

TEST_F(wlc_fifo, posted_message_is_520_bytes_of_id_and_zeroes) {
    listen();
    log_capture log;
    EXPECT_EQ(tlscPostMsgToWlc(27), 1);
    const std::vector<wire_message> got = received();
    ASSERT_EQ(got.size(), 1u);
    ASSERT_EQ(got[0].size(), 520u);
    EXPECT_EQ(got[0].substr(0, 4), std::string("\x1b\0\0\0", 4));
    EXPECT_EQ(got[0].substr(4), std::string(516, '\0'));
    EXPECT_TRUE(
        log.has("DEBUG", source, "tlscPostMsgToWlc", "tlscPostMsgToWlc() - msgid:WLC_SEC_TUN_MSG_TLSC_GW_FQDN_REQ "));
    EXPECT_TRUE(log.has("DEBUG", source, "tlscWriteToWLC", "tlscWriteToWLC() "));
    EXPECT_EQ(log.entries().size(), 2u);
}

TEST_F(wlc_fifo, sending_never_waits_and_is_not_inherited) {
    listen();
    EXPECT_EQ(tlscPostMsgToWlc(1), 1);
    EXPECT_EQ(outbound_flags & O_ACCMODE, O_WRONLY);
    EXPECT_EQ(outbound_flags & (O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC), O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    EXPECT_EQ(fcntl(last_outbound_fd, F_GETFD), -1);  // closed again
}

TEST_F(wlc_fifo, message_for_a_controller_that_is_not_there_is_dropped_with_one_error) {
    log_capture log;
    EXPECT_EQ(tlscPostMsgToWlc(1), 0);
    EXPECT_EQ(
        log.count(
            "ERROR", source, "tlscWriteToWLC",
            "tlscWriteToWLC() - on TLS Client proc, Open /tmp/tlsc-to-wlc-fifo FIFO failed in O_WRONLY | O_NONBLOCK mode error:No such file or directory"),
        1u);
    log.clear();

    ASSERT_EQ(mkfifo(from_client_fifo, 0600), 0);  // there, but nobody reads
    EXPECT_EQ(tlscPostMsgToWlc(1), 0);
    EXPECT_EQ(
        log.count(
            "ERROR", source, "tlscWriteToWLC",
            "tlscWriteToWLC() - on TLS Client proc, Open /tmp/tlsc-to-wlc-fifo FIFO failed in O_WRONLY | O_NONBLOCK mode error:No such device or address"),
        1u);
    EXPECT_EQ(log.entries().size(), 3u);
}

TEST_F(wlc_fifo, link_in_the_place_of_the_controllers_fifo_is_not_written) {
    write_file("/tmp/elsewhere", "untouched");
    ASSERT_EQ(symlink("/tmp/elsewhere", from_client_fifo), 0);
    log_capture log;
    EXPECT_EQ(tlscPostMsgToWlc(1), 0);
    EXPECT_TRUE(log.contains("mode error:Too many levels of symbolic links"));
    EXPECT_EQ(read_file("/tmp/elsewhere"), "untouched");
    unlink("/tmp/elsewhere");
}

TEST_F(wlc_fifo, full_fifo_drops_the_message_and_keeps_the_earlier_ones_whole) {
    listen();
    size_t sent = 0;
    {
        log_capture log(LOG_ERRORS);
        while (sent < 200 && tlscPostMsgToWlc(23) == 1) ++sent;
        EXPECT_TRUE(log.has(
            "ERROR", source, "tlscWriteToWLC",
            "tlscWriteToWLC() - on TLS Client, Error writing to FIFO /tmp/tlsc-to-wlc-fifo, msgId=23, num bytes written:-1, "
            "num bytes to be written:520, error:Resource temporarily unavailable"));
    }
    const std::vector<wire_message> got = received();
    EXPECT_GT(sent, 0u);
    EXPECT_EQ(got.size(), sent);
    for (const wire_message &bytes : got) EXPECT_EQ(bytes, make_message(23));
    EXPECT_EQ(tlscPostMsgToWlc(23), 1);
}

TEST_F(wlc_fifo, short_and_failed_writes_are_reported_and_not_retried) {
    listen();
    log_capture log;
    written_instead = 519;
    EXPECT_EQ(tlscPostMsgToWlc(24), 0);
    EXPECT_TRUE(log.has(
        "ERROR", source, "tlscWriteToWLC",
        "tlscWriteToWLC() - on TLS Client, Error writing to FIFO /tmp/tlsc-to-wlc-fifo, msgId=24, num bytes written:519, "
        "num bytes to be written:520, error:Success"));
    EXPECT_EQ(fcntl(last_outbound_fd, F_GETFD), -1);
    written_instead = -1;
    EXPECT_EQ(tlscPostMsgToWlc(24), 0);
    EXPECT_TRUE(log.has(
        "ERROR", source, "tlscWriteToWLC",
        "tlscWriteToWLC() - on TLS Client, Error writing to FIFO /tmp/tlsc-to-wlc-fifo, msgId=24, num bytes written:-1, "
        "num bytes to be written:520, error:Broken pipe"));
    EXPECT_EQ(fcntl(last_outbound_fd, F_GETFD), -1);
    const std::vector<wire_message> got = received();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].size(), 519u);
}

TEST_F(wlc_fifo, failed_close_after_sending_is_reported_and_the_message_counts_as_sent) {
    listen();
    log_capture log;
    const int   next = dup(STDIN_FILENO);  // the descriptor that the sending will get
    close(next);
    refused_close = next;
    EXPECT_EQ(tlscPostMsgToWlc(24), 1);
    refused_close = -1;
    EXPECT_EQ(last_outbound_fd, next);
    EXPECT_TRUE(log.has(
        "ERROR", source, "tlscWriteToWLC",
        "tlscWriteToWLC() - on TLS Client, close /tmp/tlsc-to-wlc-fifo FIFO failed, error:Input/output error "));
    close(next);
    EXPECT_EQ(received().size(), 1u);
}

TEST_F(wlc_fifo, null_message_is_refused) {
    log_capture log;
    EXPECT_EQ(tlscWriteToWLC(nullptr), 0);
    EXPECT_TRUE(log.has("ERROR", source, "tlscWriteToWLC", "tlscWriteToWLC() - Input param NULL"));
}

TEST_F(wlc_fifo, messages_of_two_threads_do_not_mix) {
    listen();
    log_capture log(LOG_ERRORS);
    const auto  send_forty = [](uint8_t fill) {
        tlsc_wlc_msg msg;
        memset(&msg, fill, sizeof(msg));
        for (int i = 0; i < 40; ++i) EXPECT_EQ(tlscWriteToWLC(&msg), 1);
    };
    std::thread one(send_forty, 0x11), two(send_forty, 0x22);
    one.join();
    two.join();
    const std::vector<wire_message> got = received();
    EXPECT_EQ(got.size(), 80u);
    for (const wire_message &bytes : got)
        EXPECT_TRUE(bytes == wire_message(520, '\x11') || bytes == wire_message(520, '\x22'));
}

// ---- start and end --------------------------------------------------------------------------------------------------

TEST_F(wlc_fifo, init_opens_the_fifo_then_greets_the_controller) {
    listen();
    log_capture log;
    EXPECT_EQ(tlscWlcInit(), 1);
    const std::vector<wire_message> got = received();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0], make_message(1));
    const std::vector<std::string> expected = {
        "TLS Client: WLC initialization",
        "openWlcToTlscFifo():",
        "openWlcToTlscFifo() - Create /tmp/wlc-to-tlsc-fifo FIFO success",
        "openWlcToTlscFifo() - Open /tmp/wlc-to-tlsc-fifo FIFO in O_RDONLY | O_NONBLOCK mode success",
        "TLS Client is up and running, posting HELLO message to WLC",
        "tlscPostMsgToWlc() - msgid:WLC_SEC_TUN_MSG_HELLO ",
        "tlscWriteToWLC() ",
    };
    EXPECT_EQ(log.messages(), expected);
    EXPECT_TRUE(log.has("DEBUG", source, "tlscWlcInit", expected[0]));
    EXPECT_TRUE(log.has("DEBUG", source, "tlscWlcInit", expected[4]));
}

TEST_F(wlc_fifo, init_succeeds_and_greets_without_its_fifo_and_without_a_controller) {
    mkfifo_error = ENOSPC;
    {
        log_capture log;
        EXPECT_EQ(tlscWlcInit(), 1);
        EXPECT_TRUE(log.contains(
            "openWlcToTlscFifo() - Create /tmp/wlc-to-tlsc-fifo FIFO failed, error:No space left on device"));
        EXPECT_TRUE(log.contains("mode error:No such file or directory"));
    }
    listen();
    EXPECT_EQ(tlscWlcInit(), 1);
    EXPECT_EQ(received().size(), 1u);
    EXPECT_EQ(readFromTlscFifo(), 0);
}

TEST_F(wlc_fifo, init_empties_the_parameter_block_and_forgets_state_and_feature) {
    wlcSecTunProcessConf("serial_num", "S1");
    wlcSecTunProcessConf("server_port", "443");
    tlscWlcSetSecTunFeatureStatus(1);
    tlscWlcSetTunState(1, 0);
    log_capture log;
    EXPECT_EQ(tlscWlcInit(), 1);
    EXPECT_STREQ(tlscWlcGetSerialNum(), "");
    EXPECT_EQ(tlscWlcGetServerPort(), 0);
    EXPECT_EQ(tlscWlcGetSecTunFeatureStatus(), 0);
    tlscWlcSetTunState(-1, 0);
    EXPECT_TRUE(log.has("DEBUG", source, "tlscWlcSetTunState", "Tunnel is already in the same state:NONE"));
}

TEST_F(wlc_fifo, boot_flag_file_sends_every_line_to_the_plain_path) {
    write_file(bootup_flag_file, "");
    log_capture log(LOG_ERRORS);
    EXPECT_EQ(tlscWlcInit(), 1);
    EXPECT_EQ(tlscWlcMsgEventDbg, 1);
    EXPECT_EQ(tlscWlcMsgErrDbg, 1);
    EXPECT_EQ(tlscWlcIpcEventDbg, 1);
    EXPECT_EQ(tlscWlcIpcErrDbg, 1);
    EXPECT_EQ(log.count_plain("EVENT", plain_path, "TLS Client: WLC initialization"), 1u);
    EXPECT_EQ(
        log.count_plain(
            "ERROR", plain_path,
            "tlscWriteToWLC() - on TLS Client proc, Open /tmp/tlsc-to-wlc-fifo FIFO failed in O_WRONLY | O_NONBLOCK mode error:No such file or directory"),
        1u);
    for (const log_line &line : log.entries()) EXPECT_TRUE(line.plain) << line.message;
}

TEST_F(wlc_fifo, lines_follow_their_own_flags) {
    log_capture log;
    // By each flag alone: which lines of one round leave the log service.
    const auto plain_lines = [&](std::atomic<int32_t> &flag) {
        flag = 1;
        log.clear();
        mkfifo_error = EACCES;
        (void)tlscWlcInit();
        mkfifo_error = 0;
        (void)openWlcToTlscFifo();
        send(make_message(1));
        (void)readFromTlscFifo();
        (void)tlscWlcCleanUp();
        tlscWlcDelFifo();
        tlscWlcDelFifo();
        flag = 0;
        std::set<std::string> found;
        for (const log_line &line : log.entries())
            if (line.plain) found.insert(line.message.substr(0, line.message.find(" error:")));
        return found;
    };
    using texts = std::set<std::string>;
    EXPECT_EQ(plain_lines(tlscWlcIpcEventDbg),
              (texts{"TLS Client: WLC initialization",
                     "openWlcToTlscFifo():", "openWlcToTlscFifo() - Create /tmp/wlc-to-tlsc-fifo FIFO success",
                     "openWlcToTlscFifo() - Open /tmp/wlc-to-tlsc-fifo FIFO in O_RDONLY | O_NONBLOCK mode success",
                     "TLS Client is up and running, posting HELLO message to WLC"}));
    EXPECT_EQ(plain_lines(tlscWlcMsgEventDbg),
              (texts{"tlscPostMsgToWlc() - msgid:WLC_SEC_TUN_MSG_HELLO ", "tlscWriteToWLC() ",
                     "readFromTlscFifo() -on TLS client proc, read success,Rcvd message, msgId=1", "tlscWlcCleanUp()",
                     "tlscWlcIpcCleanup() - on TLS Client FIFO cleanup ",
                     "tlscWlcIpcCleanup() - close /tmp/wlc-to-tlsc-fifo FIFO success", "Cleanup TLS Client WLC FIFO"}));
    EXPECT_EQ(plain_lines(tlscWlcIpcErrDbg), (texts{"openWlcToTlscFifo() - Create /tmp/wlc-to-tlsc-fifo FIFO failed,",
                                                    "tlscWlcDelFifo() - unlink failed"}));
    EXPECT_EQ(
        plain_lines(tlscWlcMsgErrDbg),
        (texts{
            "tlscWriteToWLC() - on TLS Client proc, Open /tmp/tlsc-to-wlc-fifo FIFO failed in O_WRONLY | O_NONBLOCK mode"}));
}

TEST_F(wlc_fifo,
       errors_of_set_up_and_removal_follow_the_transport_flag_and_those_of_sending_and_closing_the_message_flag) {
    listen();
    const auto plain_errors = [&](std::atomic<int32_t> &flag) {
        log_capture log(LOG_ERRORS);
        flag         = 1;
        mkfifo_error = EACCES;
        (void)openWlcToTlscFifo();
        mkfifo_error       = 0;
        atexit_result      = -1;
        inbound_open_error = EMFILE;
        (void)openWlcToTlscFifo();
        atexit_result      = 0;
        inbound_open_error = 0;
        (void)openWlcToTlscFifo();
        refused_close = last_inbound_fd;
        (void)tlscWlcIpcCleanup();
        refused_close = -1;
        (void)tlscWlcIpcCleanup();
        tlscWlcDelFifo();
        tlscWlcDelFifo();

        const int next = dup(STDIN_FILENO);  // the descriptor that the sending will get
        close(next);
        refused_close   = next;
        written_instead = 519;
        (void)tlscPostMsgToWlc(24);
        written_instead = 0;
        refused_close   = -1;
        close(next);
        (void)received();
        (void)tlscWriteToWLC(nullptr);
        flag = 0;

        std::vector<std::string> plain, others;
        for (const log_line &line : log.entries()) {
            EXPECT_EQ(line.severity, "ERROR");
            (line.plain ? plain : others).push_back(line.message);
        }
        return std::make_pair(plain, others);
    };
    const std::vector<std::string> transport{
        "openWlcToTlscFifo() - Create /tmp/wlc-to-tlsc-fifo FIFO failed, error:Permission denied",
        "openWlcToTlscFifo() - Install delete FIFO handler failed",
        "openWlcToTlscFifo() - Open /tmp/wlc-to-tlsc-fifo FIFO failed in O_RDONLY | O_NONBLOCK mode error:Too many open files",
        "tlscWlcDelFifo() - unlink failed error:No such file or directory",
    };
    const std::vector<std::string> message{
        "tlscWlcIpcCleanup() - close /tmp/wlc-to-tlsc-fifo FIFO failed ",
        "tlscWriteToWLC() - on TLS Client, Error writing to FIFO /tmp/tlsc-to-wlc-fifo, msgId=24, num bytes written:519, num bytes to be written:520, error:Success",
        "tlscWriteToWLC() - on TLS Client, close /tmp/tlsc-to-wlc-fifo FIFO failed, error:Input/output error ",
        "tlscWriteToWLC() - Input param NULL",
    };
    EXPECT_EQ(plain_errors(tlscWlcIpcErrDbg), std::make_pair(transport, message));
    EXPECT_EQ(plain_errors(tlscWlcMsgErrDbg), std::make_pair(message, transport));
}

TEST_F(wlc_fifo, clean_up_closes_the_inbound_fifo_once) {
    ASSERT_EQ(openWlcToTlscFifo(), 1);
    const int   inbound = last_inbound_fd;
    log_capture log;
    EXPECT_EQ(tlscWlcCleanUp(), 1);
    EXPECT_EQ(fcntl(inbound, F_GETFD), -1);
    EXPECT_TRUE(log.has("DEBUG", source, "tlscWlcCleanUp", "tlscWlcCleanUp()"));
    EXPECT_TRUE(log.has("DEBUG", source, "tlscWlcIpcCleanup", "tlscWlcIpcCleanup() - on TLS Client FIFO cleanup "));
    EXPECT_TRUE(log.has("DEBUG", source, "tlscWlcIpcCleanup",
                        "tlscWlcIpcCleanup() - close /tmp/wlc-to-tlsc-fifo FIFO success"));
    log.clear();
    EXPECT_EQ(tlscWlcIpcCleanup(), 1);
    EXPECT_EQ(log.messages(), std::vector<std::string>{"tlscWlcIpcCleanup() - on TLS Client FIFO cleanup "});
    EXPECT_TRUE(exists(to_client_fifo));
}

TEST_F(wlc_fifo, failed_close_is_reported_and_keeps_the_descriptor) {
    ASSERT_EQ(openWlcToTlscFifo(), 1);
    log_capture log;
    refused_close = last_inbound_fd;
    EXPECT_EQ(tlscWlcIpcCleanup(), 0);
    EXPECT_TRUE(log.has("ERROR", source, "tlscWlcIpcCleanup",
                        "tlscWlcIpcCleanup() - close /tmp/wlc-to-tlsc-fifo FIFO failed "));
    refused_close = -1;
    send(make_message(1));
    EXPECT_EQ(readFromTlscFifo(), 1);
    EXPECT_EQ(tlscWlcIpcCleanup(), 1);
}

TEST_F(wlc_fifo, clean_up_returns_1_whatever_the_close_gave) {
    ASSERT_EQ(openWlcToTlscFifo(), 1);
    log_capture log;
    refused_close = last_inbound_fd;
    EXPECT_EQ(tlscWlcCleanUp(), 1);
    EXPECT_TRUE(log.has("ERROR", source, "tlscWlcIpcCleanup",
                        "tlscWlcIpcCleanup() - close /tmp/wlc-to-tlsc-fifo FIFO failed "));
    refused_close = -1;
    EXPECT_EQ(tlscWlcCleanUp(), 1);
}

TEST_F(wlc_fifo, delete_removes_the_inbound_fifo_and_reports_a_missing_one) {
    listen();
    ASSERT_EQ(openWlcToTlscFifo(), 1);
    log_capture log;
    tlscWlcDelFifo();
    EXPECT_FALSE(exists(to_client_fifo));
    EXPECT_TRUE(exists(from_client_fifo));
    EXPECT_EQ(log.messages(), std::vector<std::string>{"Cleanup TLS Client WLC FIFO"});
    EXPECT_TRUE(log.has("DEBUG", source, "tlscWlcDelFifo", "Cleanup TLS Client WLC FIFO"));
    tlscWlcDelFifo();
    EXPECT_TRUE(
        log.has("ERROR", source, "tlscWlcDelFifo", "tlscWlcDelFifo() - unlink failed error:No such file or directory"));
}

TEST_F(wlc_fifo, process_exit_removes_the_inbound_fifo) {
    fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        tlsc_log_dest = LOG_DEST_BOTH + 1;  // silent
        if (openWlcToTlscFifo() != 1 || __real_atexit(at_exit) != 0 || !exists(to_client_fifo)) _exit(9);
        exit(3);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_FALSE(exists(to_client_fifo));
}

// ---- the catalogue --------------------------------------------------------------------------------------------------

TEST(wlc_catalogue, every_documented_message_has_its_name_and_no_other) {
    const std::vector<std::pair<uint32_t, std::string>> names = {
        {1, "HELLO"},
        {2, "BOOTUP"},
        {3, "ENABLE"},
        {4, "DISABLE"},
        {5, "TUN_RESTART"},
        {6, "CONFIG_ERR"},
        {7, "CONFIG_UPDATE"},
        {20, "TLSC_TUN_START"},
        {21, "TLSC_TUN_STOP"},
        {22, "TLSC_TUN_RESTART"},
        {23, "TLSC_TUN_IN_PROG"},
        {24, "TLSC_TUN_UP"},
        {25, "TLSC_TUN_DOWN"},
        {26, "TLSC_TUN_STATS"},
        {27, "TLSC_GW_FQDN_REQ"},
        {28, "TLSC_GW_FQDN_RES"},
        {29, "TLSC_DEBUG_SET"},
        {30, "TLSC_INFO_UPDATE"},
        {31, "EXIT"},
        {35, "TLSC_DBG_INFO_REQ"},
        {36, "TLSC_DBG_INFO_UPDATE"},
    };
    std::set<uint32_t> named;
    for (const auto &[id, name] : names) {
        EXPECT_EQ(tlscWlcMsgName(id), "WLC_SEC_TUN_MSG_" + name);
        named.insert(id);
    }
    for (uint32_t id = 0; id < 300; ++id)
        if (!named.count(id)) {
            EXPECT_STREQ(tlscWlcMsgName(id), "Invalid") << id;
        }
    EXPECT_STREQ(tlscWlcMsgName(UINT32_MAX), "Invalid");
}
