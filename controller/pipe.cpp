#include "pipe.h"

#include "common/log.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace wlcctl {

namespace {

constexpr size_t pipe_batch = 126 * record_size;  // bytes of one read: whole records, as much as a pipe holds

bool is_same_file(int fd, const std::string &path) {
    struct stat by_fd, by_path;
    return fstat(fd, &by_fd) == 0 && lstat(path.c_str(), &by_path) == 0 && by_fd.st_ino == by_path.st_ino &&
           by_fd.st_dev == by_path.st_dev;
}

bool is_reading(const std::string &process, const char *fd) {
    FILE *file = fopen((process + "/fdinfo/" + fd).c_str(), "re");
    if (!file) return true;
    unsigned flags = 0;
    char     line[128];
    while (fgets(line, sizeof line, file))
        if (sscanf(line, "flags: %o", &flags) == 1) break;
    fclose(file);
    return (flags & O_ACCMODE) != O_WRONLY;
}

bool has_open(const std::string &process, const struct stat &pipe) {
    std::string directory = process + "/fd";
    DIR        *list      = opendir(directory.c_str());
    if (!list) return false;
    bool found = false;
    while (const dirent *entry = readdir(list)) {
        struct stat facts;
        if (entry->d_name[0] == '.' || stat((directory + "/" + entry->d_name).c_str(), &facts) != 0) continue;
        found = facts.st_ino == pipe.st_ino && facts.st_dev == pipe.st_dev && is_reading(process, entry->d_name);
        if (found) break;
    }
    closedir(list);
    return found;
}

// A number of /proc/PID/stat, counted behind the name, whose own blanks do not matter.
uint64_t stat_field(int32_t pid, int index) {
    FILE *file = fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "re");
    if (!file) return 0;
    char   text[1024];
    size_t count = fread(text, 1, sizeof text - 1, file);
    fclose(file);
    text[count]    = '\0';
    const char *at = strrchr(text, ')');
    for (int i = 0; at && i < index; i++) at = strchr(at + 1, ' ');
    return at ? strtoull(at, nullptr, 10) : 0;
}

}  // namespace

reader reader_of(const std::string &path) {
    unique_fd fd(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
    if (!fd) return errno == EACCES || errno == EPERM ? reader::hidden : reader::absent;
    struct stat facts;
    bool        is_pipe = fstat(fd.get(), &facts) == 0 && S_ISFIFO(facts.st_mode);
    return is_pipe ? reader::present : reader::absent;
}

std::vector<int32_t> readers_of(const std::string &path) {
    std::vector<int32_t> pids;
    struct stat          pipe;
    DIR                 *list = lstat(path.c_str(), &pipe) == 0 && S_ISFIFO(pipe.st_mode) ? opendir("/proc") : nullptr;
    if (!list) return pids;
    while (const dirent *entry = readdir(list)) {
        int32_t     pid   = 0;
        const char *name  = entry->d_name;
        auto [end, error] = std::from_chars(name, name + strlen(name), pid);
        if (error != std::errc{} || *end != '\0' || pid == getpid()) continue;
        if (has_open(std::string("/proc/") + name, pipe)) pids.push_back(pid);
    }
    closedir(list);
    return pids;
}

uint64_t start_time_of(int32_t pid) { return stat_field(pid, 20); }
int32_t  parent_of(int32_t pid) { return static_cast<int32_t>(stat_field(pid, 2)); }

bool is_alive(int32_t pid) {
    unique_fd fd(pid > 0 ? static_cast<int>(syscall(SYS_pidfd_open, pid, 0)) : -1);
    pollfd    state = {fd.get(), POLLIN, 0};
    return fd && poll(&state, 1, 0) == 0;
}

daemon_pipe::daemon_pipe(loop &owner, const std::string &from_daemon, const std::string &to_daemon)
    : owner_(owner), from_daemon_(from_daemon), to_daemon_(to_daemon) {}

daemon_pipe::~daemon_pipe() {
    if (is_ours_) (void)unlink(from_daemon_.c_str());
}

int daemon_pipe::open(std::string &why) {
    mode_t old    = umask(0);
    int    result = mkfifo(from_daemon_.c_str(), 0620);
    umask(old);
    if (result != 0 && errno != EEXIST) {
        why = failure_text("create the pipe", from_daemon_);
        return exit_failed;
    }
    struct stat facts;
    if (lstat(from_daemon_.c_str(), &facts) != 0 || !S_ISFIFO(facts.st_mode)) {
        why = printable(from_daemon_) + " exists and is no pipe";
        return exit_failed;
    }
    if (facts.st_uid != geteuid()) {
        why = "the pipe " + printable(from_daemon_) + " belongs to another user";
        return exit_failed;
    }
    why = "another controller reads " + printable(from_daemon_);
    if (reader_of(from_daemon_) == reader::present) return exit_other_controller;

    fd_.reset(::open(from_daemon_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
    if (!fd_) {
        why = failure_text("open the pipe", from_daemon_);
        return exit_failed;
    }
    // An agent that ended between the two steps may have removed the pipe: then the lock is worth nothing.
    if (flock(fd_.get(), LOCK_EX | LOCK_NB) != 0 || !is_same_file(fd_.get(), from_daemon_))
        return exit_other_controller;
    is_ours_ = true;
    why.clear();
    watch_ = std::make_unique<descriptor_watch>(owner_, fd_.get());
    watch_->start(readable, [this](unsigned) { read_pipe(); });
    return exit_done;
}

// One read takes all that is there, and every write of the daemon is whole, so each read begins at a record's boundary.
void daemon_pipe::read_pipe() {
    static uint8_t bytes[pipe_batch];
    ssize_t        count = read(fd_.get(), bytes, sizeof bytes);
    if (count <= 0) return;
    std::vector<record> records;
    size_t              dropped = split_records(bytes, static_cast<size_t>(count), records);
    for (const record &r : records) on_message(decode(r));
    if (dropped > 0) on_garbage(dropped);
}

sent daemon_pipe::send(const record &r, std::string &why) {
    reader    who = reader_of(to_daemon_);
    unique_fd fd(who != reader::absent ? ::open(to_daemon_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW)
                                       : -1);
    ssize_t   count = fd ? write(fd.get(), r.data(), r.size()) : -1;
    int       error = errno;
    if (count == static_cast<ssize_t>(r.size())) return sent::yes;
    if (who == reader::absent || error == ENXIO || error == EPIPE) {
        why = "the daemon is not running: nobody reads " + printable(to_daemon_);
        return sent::no_reader;
    }
    why = error == EAGAIN ? "the daemon does not read its messages: " + printable(to_daemon_) + " is full"
                          : "cannot write to " + printable(to_daemon_) + ": " + strerror(error);
    return sent::failed;
}

void daemon_pipe::watch_process(int32_t pid) {
    if (pid == pid_ && is_process_alive()) return;
    process_watch_.reset();
    process_.reset(pid > 0 ? static_cast<int>(syscall(SYS_pidfd_open, pid, 0)) : -1);
    pid_ = pid;
    if (!process_) return;
    process_watch_ = std::make_unique<descriptor_watch>(owner_, process_.get());
    process_watch_->start(readable, [this](unsigned) {
        process_watch_.reset();
        process_.reset();
        if (on_process_end) on_process_end();
    });
}

void daemon_pipe::signal_process(int number) const {
    if (process_) (void)syscall(SYS_pidfd_send_signal, process_.get(), number, nullptr, 0);  // gone is as good
}

bool daemon_pipe::is_process_alive() const {
    pollfd state = {process_.get(), POLLIN, 0};
    return process_ && poll(&state, 1, 0) == 0;
}

}  // namespace wlcctl
