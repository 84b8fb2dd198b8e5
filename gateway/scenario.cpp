#include "scenario.h"

#include <cmath>
#include <cstdlib>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "common/exit_code.h"
#include "common/log.h"
#include "faults.h"

namespace gw {

// Contents: 1 reading  2 running

namespace {

using common::json;

constexpr double standard_patience = 10;      // seconds
constexpr double longest           = 3600;    // seconds
constexpr double most_rounds       = 100000;  // of repeat

// ---- 1 Reading ------------------------------------------------------------------------------------------------------

[[noreturn]] void refuse(size_t line, const std::string &what) {
    throw std::runtime_error("line " + std::to_string(line) + ": " + what);
}

std::string trimmed(const std::string &text) {
    size_t first = text.find_first_not_of(" \t\r"), last = text.find_last_not_of(" \t\r");
    return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

std::optional<double> parse_amount(const std::string &text, double limit) {
    char  *end   = nullptr;
    double value = strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !std::isfinite(value) || value < 0 || value > limit) return std::nullopt;
    return value;
}

double needed_amount(const scenario_step &step, const std::string &text, double limit) {
    auto value = parse_amount(text, limit);
    if (!value)
        refuse(step.line, "\"" + common::printable(text, 64) + "\" is no number from 0 to " +
                              std::to_string(static_cast<int>(limit)));
    return *value;
}

// A value of a member: JSON when it is some (a number, true, a quoted text), else the word as a text.
json member_value(const std::string &word) {
    json value = common::parse_json(word);
    return value.is_discarded() ? json(word) : value;
}

void read_event(scenario_step &step) {
    std::istringstream words(step.rest);
    json               members = json::object();
    words >> step.event;
    if (step.event.empty()) refuse(step.line, step.word + " needs the kind of an event");
    step.from = standard_patience;
    for (std::string word; words >> word;) {
        size_t equals = word.find('=');
        if (word == "within" && words >> word) step.from = needed_amount(step, word, longest);
        else if (equals != std::string::npos && equals > 0)
            members[word.substr(0, equals)] = member_value(word.substr(equals + 1));
        else refuse(step.line, "\"" + common::printable(word, 64) + "\" is neither MEMBER=VALUE nor within SECONDS");
    }
    step.members = members.dump();
}

void read_sleep(scenario_step &step) {
    size_t dots = step.rest.find("..");
    step.from   = needed_amount(step, step.rest.substr(0, dots), longest);
    step.to     = dots == std::string::npos ? step.from : needed_amount(step, step.rest.substr(dots + 2), longest);
    if (step.to < step.from) refuse(step.line, "the second time is shorter than the first");
}

scenario_step read_step(size_t line, const std::string &text);

void read_choices(scenario_step &step) {
    std::istringstream parts(step.rest);
    for (std::string part; std::getline(parts, part, '|');) {
        step.inside.push_back(read_step(step.line, trimmed(part)));
        const std::string &word = step.inside.back().word;
        if (word == "repeat" || word == "end" || word == "seed")
            refuse(step.line, word + " is no step that can be picked");
    }
    if (step.inside.empty()) refuse(step.line, "pick needs a step");
}

void check_fault(const scenario_step &step) {
    if (step.rest == "none") return;
    try {
        (void)parse_fault(step.rest);
    } catch (const std::runtime_error &error) {
        refuse(step.line, error.what());
    }
}

scenario_step read_step(size_t line, const std::string &text) {
    scenario_step step;
    size_t        blank = text.find_first_of(" \t");
    step.line           = line;
    step.word           = text.substr(0, blank);
    step.rest           = blank == std::string::npos ? "" : trimmed(text.substr(blank));
    if (step.word == "wait" || step.word == "never") read_event(step);
    else if (step.word == "sleep") read_sleep(step);
    else if (step.word == "pick") read_choices(step);
    else if (step.word == "fault") check_fault(step);
    else if (step.word == "repeat") step.from = std::floor(needed_amount(step, step.rest, most_rounds));
    else if (step.word == "request" && !common::parse_json(step.rest).is_object())
        refuse(line, "request needs a JSON object");
    else if (step.word != "note" && step.word != "request" && step.word != "end" && step.word != "seed")
        refuse(line, "there is no step \"" + common::printable(step.word, 32) +
                         "\"; there are: seed, note, fault, request, sleep, wait, never, pick, repeat, end");
    return step;
}

}  // namespace

scenario parse_scenario(const std::string &text) {
    scenario                   story;
    std::vector<scenario_step> open;  // repeats without their end
    std::istringstream         lines(text);
    size_t                     number = 0;
    for (std::string line; std::getline(lines, line);) {
        number++;
        line = trimmed(line);
        if (line.empty() || line[0] == '#') continue;
        scenario_step step = read_step(number, line);
        auto         &into = open.empty() ? story.steps : open.back().inside;
        if (step.word == "seed") {
            story.seed = static_cast<uint32_t>(needed_amount(step, step.rest, 4294967295.0));
        } else if (step.word == "repeat") {
            open.push_back(std::move(step));
        } else if (step.word != "end") {
            into.push_back(std::move(step));
        } else {
            if (open.empty()) refuse(number, "end without a repeat");
            scenario_step whole = std::move(open.back());
            open.pop_back();
            (open.empty() ? story.steps : open.back().inside).push_back(std::move(whole));
        }
    }
    if (!open.empty()) refuse(open.back().line, "repeat without an end");
    return story;
}

// ---- 2 Running ------------------------------------------------------------------------------------------------------

namespace {

class runner {
public:
    runner(uint32_t seed, const scenario_world &world) : random_(seed), world_(world) {
        since_ = ask({{"request", "status"}}).value("last", uint64_t{0});
    }

    void run(const std::vector<scenario_step> &steps) {
        for (const scenario_step &step : steps) run(step);
    }

private:
    json ask(const json &request) { return world_.ask(request); }

    void needs_success(const scenario_step &step, const json &answer) {
        if (!answer.value("ok", false)) refuse(step.line, answer.value("error", "no answer"));
    }

    void run(const scenario_step &step) {
        if (step.word == "repeat") {
            for (auto left = static_cast<uint64_t>(step.from); left > 0; left--) run(step.inside);
            return;
        }
        if (step.word == "pick") return run(step.inside[random_() % step.inside.size()]);
        world_.tell(step, step.word + (step.rest.empty() ? "" : " " + step.rest));
        if (step.word == "fault") needs_success(step, ask({{"request", "fault"}, {"fault", step.rest}}));
        else if (step.word == "request") needs_success(step, ask(common::parse_json(step.rest)));
        else if (step.word == "sleep") sleep(step);
        else if (step.word == "wait") wait(step);
        else if (step.word == "never") never(step);
    }

    void sleep(const scenario_step &step) {
        double share = static_cast<double>(random_() % 1001) / 1000;
        world_.sleep(step.from + (step.to - step.from) * share);
    }

    // Events are taken in their order: each wait looks behind the one before, so that none is missed in between.
    json ask_for(const scenario_step &step) {
        json request = {{"request", "wait"}, {"events", step.event}, {"since", since_}, {"timeout", step.from}};
        json members = common::parse_json(step.members);
        if (!members.empty()) request["match"] = members;
        return ask(request);
    }

    void wait(const scenario_step &step) {
        json answer = ask_for(step);
        needs_success(step, answer);
        since_ = answer["matched"]["number"].get<uint64_t>();
    }

    void never(const scenario_step &step) {
        since_      = ask({{"request", "status"}}).value("last", since_);
        json answer = ask_for(step);
        if (answer.value("ok", false)) refuse(step.line, "the event " + step.event + " came");
        if (answer.value("exit", 0) != common::exit_not_reached) needs_success(step, answer);
    }

    std::mt19937          random_;
    const scenario_world &world_;
    uint64_t              since_ = 0;  // number of the last event that was waited for
};

}  // namespace

std::string run_scenario(const scenario &story, uint32_t seed, const scenario_world &world) {
    try {
        runner(seed, world).run(story.steps);
        return "";
    } catch (const std::runtime_error &error) {
        return error.what();
    }
}

}  // namespace gw
