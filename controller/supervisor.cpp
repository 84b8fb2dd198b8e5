#include "supervisor.h"

#include <algorithm>
#include <cmath>
#include <csignal>

#include <nlohmann/json.hpp>

namespace wlcctl {

namespace {

constexpr double first_pause = 1, longest_pause = 60;  // seconds
constexpr double good_run  = 30;                       // seconds after which a pause begins anew
constexpr double short_run = 2;                        // seconds: a daemon that is refused does not last longer

}  // namespace

supervisor::supervisor(loop &owner, event_log &log, std::string program)
    : log_(log), program_(std::move(program)), child_(owner), again_(owner) {}

void supervisor::start() {
    double        begun = present().mono;
    child_options options;
    options.arguments = {program_};
    std::string error = child_.start(options,
                                     [this, begun](const child_end &end) { on_end(end, present().mono - begun); });
    if (!error.empty()) return on_end({127, 0}, 0);
    log_.add("daemon_run", {{"pid", child_.pid()}});
}

void supervisor::on_gone() {
    if (std::exchange(has_adopted_, false) && !stopped_) start();
}

void supervisor::on_end(const child_end &end, double ran) {
    pause_ = ran >= good_run || pause_ == 0 ? first_pause : std::min(pause_ * 2, longest_pause);
    json members;
    if (end.signal != 0) members["signal"] = end.signal;
    else members["status"] = end.status;
    members["again_in"] = stopped_ ? json(nullptr) : json(pause_);
    log_.add("daemon_ended", members);
    if (stopped_) return std::exchange(stopped_, nullptr)();
    if (end.status == 0 && end.signal == 0 && ran < short_run && on_refusal) on_refusal();
    again_.start(milliseconds(static_cast<int64_t>(pause_ * 1000)), [this] { start(); });
}

void supervisor::stop(task work) {
    again_.stop();
    if (!child_.is_running()) return work();
    stopped_ = std::move(work);
    child_.signal(SIGTERM);
    again_.start(milliseconds(3000), [this] { child_.signal(SIGKILL); });
}

}  // namespace wlcctl
