#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "common/json.h"

namespace gw {

// A scenario for the laboratory: one step a line, "#" begins a comment.
//
//   seed N                        of the random choices; the same seed gives the same run
//   note TEXT                     says so
//   fault NAME[@TRIGGER][#COUNT]  orders a fault; fault none forgets all of them
//   request JSON                  any request of the control socket
//   sleep SECONDS | FROM..TO      waits; a random time between the two
//   wait EVENT [MEMBER=VALUE ...] [within SECONDS]
//                                 waits for the next such event (10 s by itself); it must come
//   never EVENT [MEMBER=VALUE ...] within SECONDS
//                                 no such event may come
//   pick STEP | STEP ...          one of the steps, at random
//   repeat N ... end              the steps between, N times
struct scenario_step {
    size_t                     line = 0;
    std::string                word;
    std::string                rest;       // of the line
    std::vector<scenario_step> inside{};   // of repeat; the choices of pick
    double                     from = 0;   // seconds of sleep, limit of wait and never; count of repeat
    double                     to   = 0;   // seconds of sleep
    std::string                event{};    // of wait and never
    std::string                members{};  // its members as the text of a JSON object
};

struct scenario {
    uint32_t                   seed = 1;
    std::vector<scenario_step> steps;
};

// Throws std::runtime_error "line N: ..." for what is no scenario.
scenario parse_scenario(const std::string &text);

// What a scenario needs of the outside.
struct scenario_world {
    std::function<common::json(const common::json &request)>                ask;  // the gateway's answer
    std::function<void(double seconds)>                                     sleep;
    std::function<void(const scenario_step &step, const std::string &what)> tell;
};

// Runs it. Returns an empty text, or "line N: ..." for the step that did not hold.
std::string run_scenario(const scenario &story, uint32_t seed, const scenario_world &world);

}  // namespace gw
