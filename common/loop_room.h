// What the wrappers of libuv share; included by their sources only.
#pragma once

#include <uv.h>

#include <deque>

#include "loop.h"

namespace common {

struct loop::room {
    uv_loop_t        uv;
    uv_async_t       wake;
    std::deque<task> later;
    bool             is_stopped = false;
    unsigned         lookups    = 0;  // that the system works on
};

// Ends a watch: its handle calls nothing any more, and the room goes when libuv has let go of the handle. Null is
// nothing.
template <class Room>
void close_room(Room *room) {
    if (!room) return;
    room->handle.data = room;
    uv_close(reinterpret_cast<uv_handle_t *>(&room->handle),
             [](uv_handle_t *handle) { delete static_cast<Room *>(handle->data); });
}

}  // namespace common
