// A verb's side of the agent's socket.
#pragma once

#include "events.h"

#include <string>

namespace wlcctl {

// How a verb prints.
struct print_options {
    bool as_json     = false;
    bool is_follower = false;  // `events --follow`: lines until interrupted
};

// Sends one request, waits for its answer, prints it, and returns the verb's exit status.
// socket: path of the agent's socket; patience: seconds after which an agent that does not answer is given up, 0 waits for ever.
// Standard output gets the answer, standard error the sentence that tells what failed.
int ask_agent(const std::string &socket, const json &request, double patience, const print_options &options);

// Prints an answer that no agent gave (`conf`, or there is no agent) and returns its "exit".
int print_answer(const json &answer, const print_options &options);

}  // namespace wlcctl
