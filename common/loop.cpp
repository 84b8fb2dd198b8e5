#include "loop.h"

#include <uv.h>

#include <deque>
#include <stdexcept>
#include <string>
#include <utility>

#include "log.h"
#include "loop_room.h"

namespace common {

namespace {

void check(int result, const char *what) {
    if (result < 0) throw std::runtime_error(std::string("cannot ") + what + ": " + uv_strerror(result));
}

}  // namespace

// ---- the loop -------------------------------------------------------------------------------------------------------

loop::loop() : room_(std::make_unique<room>()) {
    check(uv_loop_init(&room_->uv), "create an event loop");
    // Keeps uv_run waiting when nothing is watched, and wakes it.
    check(uv_async_init(&room_->uv, &room_->wake, nullptr), "create an event loop");
}

loop::~loop() {
    uv_close(reinterpret_cast<uv_handle_t *>(&room_->wake), nullptr);
    while (room_->lookups == 0 && uv_run(&room_->uv, UV_RUN_NOWAIT) != 0) {}
    for (int i = 0; room_->lookups > 0 && i < 3; i++) uv_run(&room_->uv, UV_RUN_NOWAIT);
    // The system still writes into the loop of a lookup that has not ended.
    if (room_->lookups > 0 || uv_loop_close(&room_->uv) != 0) (void)room_.release();
}

void loop::run(const task &after_pass) {
    while (!room_->is_stopped) {
        uv_run(&room_->uv, UV_RUN_ONCE);
        for (size_t due = room_->later.size(); due > 0; due--) {
            task work = std::move(room_->later.front());
            room_->later.pop_front();
            guarded("loop", work);
        }
        if (!room_->later.empty()) uv_async_send(&room_->wake);
        if (after_pass) guarded("loop", after_pass);
    }
    room_->is_stopped = false;
}

void loop::stop() {
    room_->is_stopped = true;
    uv_async_send(&room_->wake);
}

void loop::later(task work) {
    room_->later.push_back(std::move(work));
    uv_async_send(&room_->wake);
}

bool loop::is_held() const { return room_->lookups > 0; }

uv_loop_s *loop::raw() const { return &room_->uv; }

// ---- watches: the room outlives its owner until libuv lets go of the handle -----------------------------------------

struct timer::room {
    uv_timer_t            handle;
    std::shared_ptr<task> work;
    bool                  repeats = false;
};

timer::timer(loop &owner) : room_(new room) {
    uv_timer_init(owner.raw(), &room_->handle);
    room_->handle.data = room_;
}

timer::~timer() { close_room(room_); }
timer::timer(timer &&other) noexcept : room_(std::exchange(other.room_, nullptr)) {}
timer &timer::operator=(timer &&other) noexcept {
    std::swap(room_, other.room_);
    return *this;
}

namespace {

// libuv counts whole milliseconds of a clock read earlier: one more, so that nothing is early.
uint64_t not_before(uv_timer_t &handle, milliseconds delay) {
    uv_update_time(handle.loop);
    return static_cast<uint64_t>(delay.count() > 0 ? delay.count() : 0) + 1;
}

template <class Room>
void on_timer(uv_timer_t *handle) {
    auto work = static_cast<Room *>(handle->data)->work;  // kept while it runs
    guarded("timer", *work);
}

}  // namespace

void timer::start(milliseconds delay, task work) {
    room_->work = std::make_shared<task>(std::move(work));
    uv_timer_start(&room_->handle, on_timer<room>, not_before(room_->handle, delay), 0);
}

void timer::repeat(milliseconds period, task work) {
    room_->work     = std::make_shared<task>(std::move(work));
    uint64_t length = not_before(room_->handle, period);
    uv_timer_start(&room_->handle, on_timer<room>, length, length - 1 > 0 ? length - 1 : 1);
}

void timer::stop() { uv_timer_stop(&room_->handle); }

bool timer::is_running() const { return uv_is_active(reinterpret_cast<const uv_handle_t *>(&room_->handle)) != 0; }

struct descriptor_watch::room {
    uv_poll_t                handle;
    std::shared_ptr<handler> work;
    unsigned                 events = 0;

    static void on_ready(uv_poll_t *handle, int status, int events) {
        auto    *self = static_cast<room *>(handle->data);
        auto     work = self->work;  // kept while it runs
        unsigned what = status < 0 ? self->events : static_cast<unsigned>(events);
        guarded("descriptor", [&] { (*work)(what); });
    }
};

static_assert(readable == UV_READABLE && writable == UV_WRITABLE && hung_up == UV_DISCONNECT);

descriptor_watch::descriptor_watch(loop &owner, int fd) : room_(new room) {
    int result = uv_poll_init(owner.raw(), &room_->handle, fd);
    if (result < 0) delete std::exchange(room_, nullptr);
    check(result, "watch a descriptor");
    room_->handle.data = room_;
}

descriptor_watch::~descriptor_watch() { close_room(room_); }
descriptor_watch::descriptor_watch(descriptor_watch &&other) noexcept : room_(std::exchange(other.room_, nullptr)) {}
descriptor_watch &descriptor_watch::operator=(descriptor_watch &&other) noexcept {
    std::swap(room_, other.room_);
    return *this;
}

void descriptor_watch::start(unsigned events, handler work) {
    room_->work = std::make_shared<handler>(std::move(work));
    change(events);
}

void descriptor_watch::change(unsigned events) {
    room_->events = events;
    if (events == 0) uv_poll_stop(&room_->handle);
    else uv_poll_start(&room_->handle, static_cast<int>(events), room::on_ready);
}

struct signal_watch::room {
    uv_signal_t handle;
    task        work;
};

signal_watch::signal_watch(loop &owner, int number, task work) : room_(new room) {
    room_->work = std::move(work);
    uv_signal_init(owner.raw(), &room_->handle);
    room_->handle.data = room_;
    auto on_signal     = [](uv_signal_t *handle, int) { guarded("signal", static_cast<room *>(handle->data)->work); };
    int  result        = uv_signal_start(&room_->handle, on_signal, number);
    if (result < 0) close_room(std::exchange(room_, nullptr));
    check(result, "receive signals");
}

signal_watch::~signal_watch() { close_room(room_); }

}  // namespace common
