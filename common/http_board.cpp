#include "http_board.h"

#include <stdexcept>
#include <sys/eventfd.h>
#include <unistd.h>

namespace common {

namespace {

constexpr std::chrono::seconds loop_patience{2};

unique_fd make_bell() {
    unique_fd fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!fd) throw std::runtime_error("cannot make an event descriptor");
    return fd;
}

}  // namespace

http_board::http_board(std::string stream, size_t most, size_t most_bytes)
    : stream_(std::move(stream)), most_(most), most_bytes_(most_bytes), bell_(make_bell()) {}

http_board::~http_board() { close(); }

void http_board::offer(const std::string &name, std::chrono::milliseconds fresh, std::function<std::string()> make) {
    std::lock_guard<std::mutex> held(lock_);
    entries_.push_back({name, fresh, std::move(make), nullptr, {}, 0, false});
}

// Made without the lock: what takes time takes it from nobody but the reader.
void http_board::serve_bell() {
    uint64_t count;
    (void)!::read(bell_.get(), &count, sizeof count);
    for (entry &each : entries_) {
        {
            std::lock_guard<std::mutex> held(lock_);
            if (!each.is_wanted) continue;
            each.is_wanted = false;
        }
        shared_text made;
        try {
            made = std::make_shared<const std::string>(each.make());
        } catch (const std::exception &) {  // whoever wanted it is told that there is none
        }
        std::lock_guard<std::mutex> held(lock_);
        each.text    = std::move(made);
        each.made_at = clock::now();
        each.version++;
    }
    changed_.notify_all();
}

shared_text http_board::read(const std::string &name) {
    std::unique_lock<std::mutex> held(lock_);
    for (entry &each : entries_) {
        if (each.name != name) continue;
        if (each.text && clock::now() - each.made_at < each.fresh) return each.text;
        each.is_wanted   = true;
        uint64_t version = each.version, one = 1;
        (void)!write(bell_.get(), &one, sizeof one);
        bool is_made = changed_.wait_for(held, loop_patience, [&] { return each.version != version || is_closed_; });
        return is_made && each.version != version ? each.text : nullptr;
    }
    return nullptr;
}

void http_board::add_event(uint64_t number, std::string text) {
    std::lock_guard<std::mutex> held(lock_);
    last_ = number;
    bytes_ += text.size();
    added_ += text.size();
    events_.push_back(std::make_shared<const std::string>(std::move(text)));
    while (events_.size() > most_ || (bytes_ > most_bytes_ && events_.size() > 1)) {
        bytes_ -= events_.front()->size();
        events_.pop_front();
    }
    changed_.notify_all();
}

event_part http_board::events(uint64_t after, size_t bytes, std::chrono::milliseconds patience) {
    std::unique_lock<std::mutex> held(lock_);
    (void)changed_.wait_for(held, patience, [&] { return last_ > after || is_closed_; });
    event_part part;
    uint64_t   oldest = last_ + 1 - events_.size();
    part.last         = last_;
    part.is_over      = is_closed_;
    part.first        = std::max(after + 1, oldest);
    size_t total      = 0;
    for (uint64_t number = part.first; number <= last_ && (total == 0 || total < bytes); number++) {
        part.texts.push_back(events_[number - oldest]);
        total += part.texts.back()->size();
    }
    return part;
}

uint64_t http_board::last_event() const {
    std::lock_guard<std::mutex> held(lock_);
    return last_;
}

uint64_t http_board::bytes_added() const {
    std::lock_guard<std::mutex> held(lock_);
    return added_;
}

void http_board::close() {
    std::lock_guard<std::mutex> held(lock_);
    is_closed_ = true;
    changed_.notify_all();
}

}  // namespace common
