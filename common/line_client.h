// The other end of a json_server: sends a request, reads lines. For command lines; blocks. Called on the program's one
// thread.
#pragma once

#include <string>

#include "unique_fd.h"

namespace common {

class line_client {
public:
    // Connects to the socket at path. The socket may lie where anybody can put one: only our own user's, root's, or,
    // when any_user is set, anybody's process is believed. Returns an empty text, or the sentence that says what
    // failed; nobody: what to say when nobody serves the socket.
    std::string connect(const std::string &path, const std::string &nobody, bool any_user = false);

    // Sends a line (with its line end). False: the other side went away.
    bool send(const std::string &line);

    enum class reading {
        line,
        over,        // the other side went away
        late,        // nothing for `patience` seconds
        interrupted  // SIGINT or SIGTERM, after catch_interrupts()
    };

    // Takes the next line, without its line end. patience: seconds, 0 waits for ever.
    reading read(std::string &line, double patience);

    // Lets SIGINT and SIGTERM end read() instead of the program.
    static void catch_interrupts();

private:
    unique_fd   fd_;
    std::string buffer_;  // what came behind the line
};

}  // namespace common
