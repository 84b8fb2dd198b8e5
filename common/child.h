// Child processes: started, listened to, ended, collected.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "loop.h"

namespace common {

struct child_options {
    std::vector<std::string> arguments;    // the program first; without a '/' it is looked for in PATH
    std::vector<std::string> environment;  // complete, "NAME=value"; empty: ours
    std::string              directory;    // to work in; empty: ours

    // Called with what the child writes, as it comes; null: the child writes where we write (standard error for both).
    std::function<void(std::string_view)> on_output;
    std::function<void(std::string_view)> on_error_output;
};

// How a child ended: by itself with a status, or by a signal (0: none).
struct child_end {
    int status = 0;
    int signal = 0;
};

// One child at a time, in a session (and so a process group) of its own, with default signals and nothing to read.
class child {
public:
    explicit child(loop &owner);
    ~child();  // a child that still runs is killed with its group, and collected
    child(const child &)            = delete;
    child &operator=(const child &) = delete;

    // Starts the program. on_end: called once when it has ended and all that it wrote was told (or a moment later, when
    // another process keeps its output open); may start the next. Returns an empty text or why it could not be started.
    std::string start(const child_options &options, std::function<void(const child_end &)> on_end);

    bool is_running() const { return process_ != nullptr; }
    int  pid() const;  // 0: none

    // Sends a signal to the child's whole group. Nothing if none runs.
    void signal(int number);

private:
    struct process;
    struct output;
    output *make_output(const std::function<void(std::string_view)> &work);
    void    on_exit(const child_end &end);
    void    listen_to(output &from);
    void    settle();
    void    close_rooms();

    loop                                  &owner_;
    timer                                  grace_;  // for output that comes after the end
    process                               *process_ = nullptr;
    output                                *out_     = nullptr;
    output                                *error_   = nullptr;
    std::function<void(const child_end &)> on_end_;
};

// Our environment with those of `facts` ("NAME=value") in place of every variable whose name begins with prefix.
std::vector<std::string> environment_with(const std::vector<std::string> &facts, const std::string &prefix);

}  // namespace common
