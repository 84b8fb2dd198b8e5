// Where a program's loop lays out what its HTTP threads show: texts that are made when somebody wants them, and the
// newest events. The loop never waits for a reader; a reader waits a little for the loop. The loop watches the board's
// bell, and serves it when it is readable.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "unique_fd.h"

namespace common {

using shared_text = std::shared_ptr<const std::string>;

// Events behind some number, oldest first, without a gap among themselves.
struct event_part {
    uint64_t                 first = 0;  // number of the first of them, or the number that the next event will have
    uint64_t                 last  = 0;  // number of the newest event there is
    std::vector<shared_text> texts;
    bool                     is_over = false;  // nothing will come any more
};

// What the threads see. Every call takes the lock for a moment.
class http_board_view {
public:
    virtual ~http_board_view() = default;

    // The text of that name, as fresh as was promised; null when the loop did not make it within two seconds.
    virtual shared_text read(const std::string &name) = 0;

    // Events with numbers above `after`, waiting for the first for so long; at least one if there is one, and no more
    // than about `bytes` of them.
    virtual event_part events(uint64_t after, size_t bytes, std::chrono::milliseconds patience) = 0;

    virtual uint64_t           last_event() const  = 0;  // its number, 0: there was none
    virtual uint64_t           bytes_added() const = 0;  // of all events ever
    virtual const std::string &stream() const      = 0;  // of the events' numbers
};

class http_board final : public http_board_view {
public:
    // stream: of the events. The oldest events go when there are more than `most`, or more than `most_bytes` of text.
    explicit http_board(std::string stream, size_t most = 1000, size_t most_bytes = 256 * 1024);
    ~http_board() override;

    // Offers a text. make: called by serve_bell() when somebody wants it and the last one is older than `fresh`.
    void offer(const std::string &name, std::chrono::milliseconds fresh, std::function<std::string()> make);

    int  bell() const { return bell_.get(); }
    void serve_bell();

    // Adds an event. Numbers begin anywhere and have no gaps.
    void add_event(uint64_t number, std::string text);

    // Lets everybody go who waits. Called before the threads are ended.
    void close();

    shared_text        read(const std::string &name) override;
    event_part         events(uint64_t after, size_t bytes, std::chrono::milliseconds patience) override;
    uint64_t           last_event() const override;
    uint64_t           bytes_added() const override;
    const std::string &stream() const override { return stream_; }

private:
    using clock = std::chrono::steady_clock;
    struct entry {
        std::string                  name;
        std::chrono::milliseconds    fresh;
        std::function<std::string()> make;
        shared_text                  text;
        clock::time_point            made_at{};
        uint64_t                     version   = 0;
        bool                         is_wanted = false;
    };

    const std::string       stream_;
    const size_t            most_, most_bytes_;
    unique_fd               bell_;  // rung by the threads
    mutable std::mutex      lock_;
    std::condition_variable changed_;
    std::list<entry>        entries_;
    std::deque<shared_text> events_;
    uint64_t                last_      = 0;  // number of the newest event
    size_t                  bytes_     = 0;
    uint64_t                added_     = 0;
    bool                    is_closed_ = false;
};

}  // namespace common
