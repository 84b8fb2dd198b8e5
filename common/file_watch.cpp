#include "file_watch.h"

#include <uv.h>

#include <utility>

#include "log.h"
#include "loop_room.h"

namespace common {

namespace {

constexpr milliseconds look_period{500};

}  // namespace

struct file_watch::room {
    uv_fs_event_t handle;
    file_watch   *owner;
};

file_watch::file_watch(loop &owner, const std::string &path, task on_change)
    : owner_(owner), on_change_(std::move(on_change)), look_(owner) {
    size_t slash = path.find_last_of('/');
    directory_   = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    name_        = slash == std::string::npos ? path : path.substr(slash + 1);
    begin();
}

file_watch::~file_watch() { close_room(room_); }

void file_watch::begin() {
    room_        = new room;
    room_->owner = this;
    uv_fs_event_init(owner_.raw(), &room_->handle);
    room_->handle.data = room_;
    int result         = uv_fs_event_start(
                &room_->handle,
                [](uv_fs_event_t *handle, const char *name, int, int status) {
            auto *self = static_cast<room *>(handle->data)->owner;
            if (status < 0 || !name || self->name_ == name) return guarded("file", self->on_change_);
            // The directory itself is named by its last part: it may be gone.
            if (self->directory_.ends_with(std::string("/") + name)) self->fall_back();
        },
                directory_.c_str(), 0);
    if (result != 0) fall_back();
}

void file_watch::fall_back() {
    close_room(std::exchange(room_, nullptr));
    look_.start(look_period, [this] { look(); });
}

// The directory may be there by now.
void file_watch::look() {
    begin();
    guarded("file", on_change_);
}

}  // namespace common
