#include "control.h"

#include <spdlog/spdlog.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "errors.h"

namespace gw {

namespace {

constexpr size_t   line_limit     = 4 * 1024 * 1024;   // bytes of a request
constexpr size_t   out_limit      = 64 * 1024 * 1024;  // bytes for a controller that does not read
constexpr uint64_t longest_wait   = 3600 * 1000;       // milliseconds
constexpr uint64_t standard_wait  = 10 * 1000;         // milliseconds
constexpr int      listen_backlog = 16;

sockaddr_un socket_address(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw runtime_failure("the path of the control socket is too long: " + path);
    path.copy(address.sun_path, path.size());
    return address;
}

// A socket file that nobody listens on is a leftover; anything else at that path stays.
void remove_leftover(const std::string &path, const sockaddr_un &address) {
    struct stat info;
    if (lstat(path.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode)) return;
    unique_fd probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 &&
        errno == ECONNREFUSED)
        (void)unlink(path.c_str());
}

json failure(const std::string &error) { return {{"ok", false}, {"error", error}}; }

}  // namespace

control_socket::control_socket(const std::string &path, tunnel_gateway &gateway, event_loop &loop)
    : path_(path),
      gateway_(gateway),
      loop_(loop),
      listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = socket_address(path);
    remove_leftover(path, address);
    mode_t before = umask(0177);
    bool   bound  = bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    int    error  = errno;
    umask(before);
    if (!bound) throw runtime_failure("cannot create the control socket " + path + ": " + strerror(error));
    if (listen(listener_.get(), listen_backlog) != 0)
        throw runtime_failure("cannot listen on the control socket " + path + ": " + strerror(errno));
    listen_watch_ = loop_.watch(listener_.get(), EPOLLIN, [this](uint32_t) { on_acceptable(); });
    gateway_.events.on_event([this](const json &event) { publish(event); });
}

control_socket::~control_socket() {
    gateway_.events.on_event(nullptr);
    for (const auto &controller : controllers_) {
        flush(*controller);
        for (const auto &[number, wait] : controller->waits) loop_.cancel(wait.timer);
        loop_.forget(controller->watch);
    }
    loop_.forget(listen_watch_);
    (void)unlink(path_.c_str());
}

void control_socket::on_acceptable() {
    unique_fd socket(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket) return;
    auto &controller  = *controllers_.emplace_back(std::make_unique<controller_link>());
    controller.socket = std::move(socket);
    controller.watch  = loop_.watch(controller.socket.get(), EPOLLIN,
                                    [this, &controller](uint32_t events) { on_event(controller, events); });
}

void control_socket::on_event(controller_link &controller, uint32_t events) {
    if (events & EPOLLOUT) controller.blocked = false;
    if (events & EPOLLIN) read_lines(controller);
    else if (events & (EPOLLHUP | EPOLLERR)) controller.dead = true;
}

void control_socket::read_lines(controller_link &controller) {
    char    buffer[65536];
    ssize_t count = recv(controller.socket.get(), buffer, sizeof buffer, 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count < 0) {
        controller.dead = true;
        return;
    }
    if (count == 0) {  // answers may still be due
        controller.no_more_in = true;
        loop_.modify(controller.watch, 0);
        return;
    }
    controller.in.append(buffer, static_cast<size_t>(count));
    size_t start = 0;
    for (size_t end; (end = controller.in.find('\n', start)) != std::string::npos; start = end + 1) {
        take_line(controller, controller.in.substr(start, end - start));
    }
    controller.in.erase(0, start);
    if (controller.in.size() > line_limit) {
        send(controller, failure("line too long"));
        flush(controller);
        controller.dead = true;
    }
}

void control_socket::take_line(controller_link &controller, const std::string &line) {
    if (line.find_first_not_of(" \t\r") == std::string::npos) return;
    json request = json::parse(line, nullptr, false);
    if (!request.is_object())
        return send(controller, failure(request.is_discarded() ? "not JSON" : "not a JSON object"));
    json id = request.contains("id") ? request["id"] : json(nullptr);
    json answer;
    try {
        answer = execute(controller, request);
    } catch (const command_error &error) {
        answer = failure(error.what());
    } catch (const json::exception &error) {
        answer = failure(error.what());
    }
    if (answer.is_null()) return;  // a wait that goes on
    if (!id.is_null()) answer["id"] = id;
    send(controller, answer);
}

json control_socket::execute(controller_link &controller, const json &request) {
    json        answer = {{"ok", true}};
    std::string name   = request.value("cmd", json()).is_string() ? request["cmd"].get<std::string>() : "";
    if (name == "subscribe") {
        answer.update(subscribe(controller, request));
    } else if (name == "unsubscribe") {
        check_members(request, {});
        controller.subscribed = false;
    } else if (name == "wait") {
        return start_wait(controller, request, answer) ? json(nullptr) : answer;
    } else {
        answer.update(run_command(gateway_, request));
    }
    return answer;
}

json control_socket::subscribe(controller_link &controller, const json &request) {
    check_members(request, {"events", "since"});
    uint64_t since        = number_member(request, "since", gateway_.events.last());
    controller.kinds      = event_kinds(request, "events");
    controller.subscribed = true;
    gateway_.events.visit(since, [&](const json &event) {
        if (wants(controller, event)) send(controller, event);
        return true;
    });
    return {{"seq", gateway_.events.last()}};
}

// True when the answer comes later; otherwise the event is there already and `answer` holds it.
bool control_socket::start_wait(controller_link &controller, const json &request, json &answer) {
    check_members(request, {"event", "since", "client", "match", "timeout_ms"});
    pending_wait wait{request.contains("id") ? request["id"] : json(nullptr), read_event_filter(request, "event")};
    uint64_t     since = number_member(request, "since", gateway_.events.last());
    std::chrono::milliseconds timeout(number_member(request, "timeout_ms", standard_wait, longest_wait));
    bool                      found = false;
    gateway_.events.visit(since, [&](const json &event) {
        found = wait.filter.accepts(event);
        if (found) answer["event_data"] = event;
        return !found;
    });
    if (found) return false;

    uint64_t number = next_wait_++;
    wait.timer      = loop_.after(timeout, [this, &controller, number] {
        auto node = controller.waits.extract(number);
        json late = failure("timeout");
        if (!node.mapped().id.is_null()) late["id"] = node.mapped().id;
        send(controller, late);
    });
    controller.waits.emplace(number, std::move(wait));
    return true;
}

bool control_socket::wants(const controller_link &controller, const json &event) const {
    std::string kind = event["event"].get<std::string>();
    return controller.kinds.empty() ? kind != "data" : controller.kinds.contains(kind);
}

void control_socket::publish(const json &event) {
    for (auto &controller : controllers_) {
        if (controller->dead) continue;
        if (controller->subscribed && wants(*controller, event)) send(*controller, event);
        for (auto wait = controller->waits.begin(); wait != controller->waits.end();) {
            if (!wait->second.filter.accepts(event)) {
                ++wait;
                continue;
            }
            json answer = {{"ok", true}, {"event_data", event}};
            if (!wait->second.id.is_null()) answer["id"] = wait->second.id;
            loop_.cancel(wait->second.timer);
            wait = controller->waits.erase(wait);
            send(*controller, answer);
        }
    }
}

void control_socket::send(controller_link &controller, const json &message) {
    controller.out += message.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
    if (controller.out.size() <= out_limit) return;
    spdlog::warn("controller does not read: closed");
    controller.dead = true;
}

void control_socket::flush(controller_link &controller) {
    while (!controller.dead && !controller.blocked && !controller.out.empty()) {
        ssize_t sent = ::send(controller.socket.get(), controller.out.data(), controller.out.size(), MSG_NOSIGNAL);
        if (sent > 0) controller.out.erase(0, static_cast<size_t>(sent));
        else if (errno == EAGAIN) controller.blocked = true;
        else if (errno != EINTR) controller.dead = true;
    }
    uint32_t input = controller.no_more_in ? 0 : static_cast<uint32_t>(EPOLLIN);
    loop_.modify(controller.watch, input | (controller.blocked ? static_cast<uint32_t>(EPOLLOUT) : 0u));
}

void control_socket::finish_batch() {
    for (const auto &controller : controllers_) {
        if (!controller->out.empty()) flush(*controller);
        bool done = controller->no_more_in && controller->out.empty() && controller->waits.empty() &&
                    !controller->subscribed;
        if (!controller->dead && !done) continue;
        for (const auto &[number, wait] : controller->waits) loop_.cancel(wait.timer);
        loop_.forget(controller->watch);
        controller->dead = true;
    }
    std::erase_if(controllers_, [](const auto &controller) { return controller->dead; });
}

}  // namespace gw
