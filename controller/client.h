// A verb's side of the agent's socket.
#pragma once

#include "base.h"

#include <functional>
#include <string>

namespace wlcctl {

// How a verb prints.
struct print_options {
    bool as_json     = false;
    bool is_follower = false;  // `events --follow`: lines until interrupted
};

constexpr double agent_reserve = 10;  // seconds that the agent may be late

// Sends one request, waits for its answer, prints it, and returns the verb's exit status.
// socket: path of the agent's socket; patience: seconds after which an agent that does not answer is given up, 0 waits
// for ever. Standard output gets the answer, standard error the sentence that tells what failed.
int ask_agent(const std::string &socket, const json &request, double patience, const print_options &options);

// The same for `start --wait`: tells the steps on standard error meanwhile. after: called when the tunnel is up, may
// change the answer.
int ask_with_progress(const std::string &socket, const json &request, double patience, const print_options &options,
                      const std::function<void(json &answer)> &after);

// Sends one request and gives its answer, of this program's own making when there is no agent. Prints nothing.
json fetch_answer(const std::string &socket, const json &request, double patience);

// Shows the status again at every change: repainted on a terminal, else a line for each change. Until interrupted.
// count: changes after which it ends, 0: none.
int watch_agent(const std::string &socket, const print_options &options, uint64_t count);

// Prints an answer and returns its "exit".
int print_answer(const json &answer, const print_options &options);

// An answer that no agent gave. request: the verb's name.
json local_answer(const std::string &request, int exit, const std::string &error = "");

}  // namespace wlcctl
