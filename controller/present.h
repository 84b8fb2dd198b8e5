// Answers and events as text for people. Pure functions of the documented JSON; what is missing is left out.
#pragma once

#include "base.h"

#include <string>

namespace wlcctl {

// One event as one line, without a line end.
std::string event_text(const json &e);

// What a verb says when it has done its work or knows why it has not, with line ends; may be empty.
// The "error" of an answer is not part of it: that goes to standard error.
std::string answer_text(const json &answer);

// The status as one line: state, health, reason.
std::string status_line(const json &answer);

// A step of a start, from an event; empty if the event is no step.
std::string progress_text(const json &e);

// A number of seconds as people say it: "0.4 s", "12 s", "3 min 5 s", "2 h 10 min", "4 d 3 h".
std::string duration_text(double seconds);

}  // namespace wlcctl
