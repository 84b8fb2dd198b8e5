// The daemon's pipes: our own, which it writes, and its own, which we write; who reads it, and whether its process
// lives. Called on the loop's thread.
#pragma once

#include "base.h"
#include "wire.h"

#include "common/loop.h"
#include "common/unique_fd.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace wlcctl {

// Who reads a pipe: somebody, nobody (or there is no such pipe), or we are not allowed to know.
enum class reader {
    present,
    absent,
    hidden
};
reader reader_of(const std::string &path);

// Ids of the processes, our own apart, that have the pipe open for reading; those that we may not look into are
// missing.
std::vector<int32_t> readers_of(const std::string &path);

// When a process began, in clock ticks since boot; 0 if there is no such process.
uint64_t start_time_of(int32_t pid);
int32_t  parent_of(int32_t pid);  // 0: there is none
bool     is_alive(int32_t pid);   // and no zombie; also of a process that we may not look into

enum class sent {
    yes,
    no_reader,
    failed
};

class daemon_pipe {
public:
    daemon_pipe(loop &owner, const std::string &from_daemon, const std::string &to_daemon);
    ~daemon_pipe();  // removes our pipe if open() made it ours

    std::function<void(const message &m)> on_message;
    std::function<void(size_t bytes)>     on_garbage;
    task                                  on_process_end;  // of the process that is watched

    // Makes our pipe, makes sure that nobody else reads it, and locks it. Returns an exit status; why: the sentence.
    int open(std::string &why);

    // Writes one record into the daemon's pipe; never blocks. why: what failed.
    sent send(const record &r, std::string &why);

    reader daemon_reader() const { return reader_of(to_daemon_); }

    // Watches the daemon's process, so that its end is seen at once. One that cannot be seen from here is not watched.
    void    watch_process(int32_t pid);
    bool    is_process_alive() const;
    int32_t process() const { return is_process_alive() ? pid_ : 0; }

    // Sends a signal to the process that is watched, and to no other that got its number since.
    void signal_process(int number) const;

    const std::string &from_daemon() const { return from_daemon_; }
    const std::string &to_daemon() const { return to_daemon_; }

private:
    void read_pipe();

    loop                             &owner_;
    std::string                       from_daemon_;
    std::string                       to_daemon_;
    bool                              is_ours_ = false;
    unique_fd                         fd_;
    std::unique_ptr<descriptor_watch> watch_;
    unique_fd                         process_;  // pidfd
    std::unique_ptr<descriptor_watch> process_watch_;
    int32_t                           pid_ = 0;
};

}  // namespace wlcctl
