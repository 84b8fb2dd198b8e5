#include "child.h"

#include <sys/wait.h>
#include <unistd.h>
#include <uv.h>

#include <csignal>
#include <utility>

#include "log.h"
#include "loop_room.h"

extern char **environ;  // POSIX declares it in no header

namespace common {

namespace {

constexpr milliseconds output_grace{200};  // for the last words of a child whose own children hold its output open

}  // namespace

struct child::process {
    uv_process_t handle;
    child       *owner    = nullptr;
    bool         is_over  = false;
    bool         has_room = true;  // the handle is libuv's
    child_end    end;
};

struct child::output {
    uv_pipe_t                             handle;
    child                                *owner = nullptr;
    std::function<void(std::string_view)> work;
    bool                                  is_over = false;
    char                                  bytes[4096];
};

child::child(loop &owner) : owner_(owner), grace_(owner) {}

child::~child() {
    on_end_ = nullptr;
    if (process_ && !process_->is_over) {
        kill(-process_->handle.pid, SIGKILL);
        while (waitpid(process_->handle.pid, nullptr, 0) < 0 && errno == EINTR) {}
    }
    close_rooms();
}

namespace {

// As exec wants them, with a null behind.
std::vector<char *> pointers_to(const std::vector<std::string> &texts) {
    std::vector<char *> all;
    all.reserve(texts.size() + 1);
    for (const std::string &text : texts) all.push_back(const_cast<char *>(text.c_str()));
    all.push_back(nullptr);
    return all;
}

// A pipe of ours, or our own standard error.
uv_stdio_container_t stream_to(uv_stream_t *pipe) {
    uv_stdio_container_t slot{};
    slot.flags = pipe ? static_cast<uv_stdio_flags>(UV_CREATE_PIPE | UV_WRITABLE_PIPE) : UV_INHERIT_FD;
    if (pipe) slot.data.stream = pipe;
    else slot.data.fd = STDERR_FILENO;
    return slot;
}

}  // namespace

child::output *child::make_output(const std::function<void(std::string_view)> &work) {
    if (!work) return nullptr;
    auto *made  = new output;
    made->owner = this;
    made->work  = work;
    uv_pipe_init(owner_.raw(), &made->handle, 0);
    made->handle.data = made;
    return made;
}

std::string child::start(const child_options &options, std::function<void(const child_end &)> on_end) {
    if (process_) return "a child runs already";
    out_   = make_output(options.on_output);
    error_ = make_output(options.on_error_output);

    auto                stream = [](output *of) { return of ? reinterpret_cast<uv_stream_t *>(&of->handle) : nullptr; };
    std::vector<char *> arguments = pointers_to(options.arguments), environment = pointers_to(options.environment);
    uv_stdio_container_t stdio[3] = {{}, stream_to(stream(out_)), stream_to(stream(error_))};
    stdio[0].flags                = UV_IGNORE;  // libuv gives /dev/null

    uv_process_options_t uv{};
    uv.file        = arguments[0];
    uv.args        = arguments.data();
    uv.env         = options.environment.empty() ? nullptr : environment.data();
    uv.cwd         = options.directory.empty() ? nullptr : options.directory.c_str();
    uv.flags       = UV_PROCESS_DETACHED;
    uv.stdio       = stdio;
    uv.stdio_count = 3;
    uv.exit_cb     = [](uv_process_t *handle, int64_t status, int signal) {
        static_cast<process *>(handle->data)->owner->on_exit({static_cast<int>(status), signal});
    };

    process_              = new process;
    process_->owner       = this;
    process_->handle.data = process_;
    if (int result = uv_spawn(owner_.raw(), &process_->handle, &uv); result < 0) {
        close_rooms();
        return uv_strerror(result);
    }
    on_end_ = std::move(on_end);
    for (output *each : {out_, error_})
        if (each) listen_to(*each);
    return "";
}

void child::on_exit(const child_end &end) {
    process_->is_over = true;
    process_->end     = end;
    grace_.start(output_grace, [this] {
        if (out_) out_->is_over = true;
        if (error_) error_->is_over = true;
        settle();
    });
    settle();
}

void child::listen_to(output &from) {
    uv_read_start(
        reinterpret_cast<uv_stream_t *>(&from.handle),
        [](uv_handle_t *handle, size_t, uv_buf_t *buffer) {
            auto *self = static_cast<output *>(handle->data);
            *buffer    = uv_buf_init(self->bytes, sizeof self->bytes);
        },
        [](uv_stream_t *stream, ssize_t count, const uv_buf_t *buffer) {
            auto *self = static_cast<output *>(stream->data);
            if (count > 0) {
                guarded("child", [&] { self->work({buffer->base, static_cast<size_t>(count)}); });
            } else if (count < 0) {
                uv_read_stop(stream);
                self->is_over = true;
                self->owner->settle();
            }
        });
}

void child::close_rooms() {
    close_room(std::exchange(process_, nullptr));
    close_room(std::exchange(out_, nullptr));
    close_room(std::exchange(error_, nullptr));
}

// Tells the end when the process is over and so is its output.
void child::settle() {
    if (!process_ || !process_->is_over) return;
    if ((out_ && !out_->is_over) || (error_ && !error_->is_over)) return;
    grace_.stop();
    child_end end = process_->end;
    close_rooms();
    auto work = std::move(on_end_);
    if (work) guarded("child", [&] { work(end); });
}

int child::pid() const { return process_ && !process_->is_over ? process_->handle.pid : 0; }

void child::signal(int number) {
    if (process_) kill(-process_->handle.pid, number);
}

std::vector<std::string> environment_with(const std::vector<std::string> &facts, const std::string &prefix) {
    std::vector<std::string> all = facts;
    for (char **entry = environ; *entry; entry++)
        if (std::string_view(*entry).substr(0, prefix.size()) != prefix) all.emplace_back(*entry);
    return all;
}

}  // namespace common
