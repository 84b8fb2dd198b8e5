// Whole lives of the tunnel against the faked kernel: starts, connections, traffic, timers in any order, commands,
// failing calls, ends. The ledger of the kernel is looked at with every wait; at the end all failures stop, and the
// tunnel must come up by itself and end with everything closed.
//
// Input: one byte of settings, then one byte per event with what the event needs; see on_wait.
#include <cerrno>
#include <sys/epoll.h>
#include <vector>

#include "tlsc_openssl.h"

#include "kernel.h"
#include "tlsc_config.h"
#include "tlsc_debug.h"
#include "tlsc_engine.h"
#include "tlsc_main.h"
#include "tlsc_timer.h"

using namespace kernel;

namespace {

constexpr unsigned most_runs      = 6;    // of the tunnel thread while the input lasts
constexpr unsigned healing_passes = 100;  // waits within which the tunnel is up again
constexpr unsigned healing_runs   = 3;    // starts within which it is

bool     healing;
unsigned healing_steps;
bool     is_healed;

constexpr int frame_data = 0, frame_request = 1, frame_response = 2, frame_dpd_request = 3, frame_dpd_response = 4;

std::string frame(int type, const std::string &payload) {
    std::string bytes("STF\x01", 4);
    bytes += static_cast<char>(payload.size() >> 8);
    bytes += static_cast<char>(payload.size());
    bytes += static_cast<char>(type);
    bytes += '\0';
    return bytes + payload;
}

std::string good_response() {
    return "X-CSTP-Address:10.9.0.0\nX-CSTP-Prefix-Length:24\nX-CSTP-DPD:30\nX-CSTP-Address-Client:10.9.0.7\n"
           "X-CSTP-Retry-Time:20\nX-CSTP-Rekey-Time:600\nX-CSTP-Cookie:0123456789\nX-CSTP-DNS:10.9.0.53\n";
}

// A number as a peer may write it: usual ones, limits, none.
std::string number_text(fuzz_input &in) {
    constexpr const char *odd[]  = {"",   "0",          "-1",         "5",          "10",
                                    "+7", "2147483647", "2147483648", "4294967296", "99999999999999999999"};
    const uint8_t         choice = in.byte();
    return choice < std::size(odd) ? odd[choice] : std::to_string(choice);
}

std::string response(fuzz_input &in) {
    if (in.chance(128)) return good_response();
    std::string text;
    if (in.chance(200)) text += "X-CSTP-Address:10.9.0." + number_text(in) + "\n";
    if (in.chance(200)) text += "X-CSTP-DPD:" + number_text(in) + "\n";
    if (in.chance(230)) text += "X-CSTP-Address-Client:10.9.0." + number_text(in) + "\n";
    if (in.chance(200)) text += "X-CSTP-Retry-Time:" + number_text(in) + "\n";
    if (in.chance(200)) text += "X-CSTP-Rekey-Time:" + number_text(in) + "\n";
    if (in.chance(128)) text += "X-CSTP-DNS:" + std::string(in.bytes(in.below(60))) + "\n";
    return is_deadly_response(text) ? good_response() : text;
}

std::string peer_frame(fuzz_input &in) {
    switch (in.below(6)) {
    case 0:
    case 1: return frame(frame_response, response(in));
    case 2: return frame(frame_dpd_response, "");
    case 3: return frame(frame_data, std::string(in.bytes(in.below(1500))));
    case 4: return frame(static_cast<int>(in.byte()) | 8, std::string(in.bytes(in.below(40))));
    default: {
        std::string bytes(in.bytes(in.below(1600)));
        if (bytes.size() > 6 && bytes[6] == frame_response) bytes[6] = frame_dpd_response;  // may be deadly
        return bytes;
    }
    }
}

std::string command(int32_t id, int32_t value) {
    tlsc_cli_cmd cmd{};
    cmd.id    = id;
    cmd.value = value;
    return {reinterpret_cast<const char *>(&cmd), sizeof(cmd)};
}

// ---- events ---------------------------------------------------------------------------------------------------------

struct event_list {
    epoll_event *events;
    int          room;
    int          count = 0;

    bool add(const descriptor *entry, uint32_t mask) {
        if (!entry || !entry->registered || count == room) return false;
        events[count]          = {};
        events[count].events   = mask;
        events[count].data.u64 = entry->data;
        ++count;
        return true;
    }
};

// The registered descriptors of a kind; armed timers only.
std::vector<descriptor *> candidates(kind what) {
    std::vector<descriptor *> found;
    for (descriptor &entry : world.table)
        if (entry.what == what && entry.registered && (what != kind::timer || entry.armed)) found.push_back(&entry);
    return found;
}

descriptor *choose(kind what, fuzz_input &in) {
    const auto found = candidates(what);
    return found.empty() ? nullptr : found[found.size() == 1 ? 0 : in.below(found.size())];
}

bool expire(event_list &list, descriptor *timer) {
    if (!list.add(timer, EPOLLIN)) return false;
    world.now += std::clamp(timer->seconds, 0L, 4000L);
    if (!timer->periodic) timer->armed = false;
    return true;
}

constexpr uint32_t error_masks[] = {EPOLLIN | EPOLLRDHUP, EPOLLHUP, EPOLLERR,
                                    EPOLLIN | EPOLLERR | EPOLLHUP | EPOLLRDHUP};
constexpr int      read_errors[] = {SSL_ERROR_WANT_READ, SSL_ERROR_WANT_WRITE, SSL_ERROR_SYSCALL, SSL_ERROR_SSL,
                                    SSL_ERROR_ZERO_RETURN};

bool give_command(event_list &list, fuzz_input &in) {
    switch (in.below(8)) {
    case 0: world.command = command(CLI_CMD_EXIT_CLIENT, 0); break;
    case 1: world.command = command(CLI_CMD_LOG_LEVEL, in.chance(32) ? LOG_BUF_PRINT : LOG_ERRORS - 1); break;
    case 2: world.command = command(CLI_CMD_LOG_DEST, static_cast<int32_t>(in.below(4))); break;
    case 3: world.command = command(CLI_CMD_INVALID, 0); break;
    case 4: world.command = std::string(in.bytes(36)); break;
    default:
        world.command = command(CLI_CMD_GW_IP, in.chance(200) ? ADDR_IPV4 : static_cast<int32_t>(in.byte()));
        break;
    }
    return list.add(find(number_of(kind::pipe_in)), EPOLLIN);
}

// A record or several, a part of one, bytes that are none, or the end.
void peer_sends(event_list &list, fuzz_input &in) {
    descriptor *stream = choose(kind::stream, in);
    if (!stream) return;
    const uint8_t how = in.byte();
    for (int records = (how & 7) == 7 ? 4 : 1; records > 0; --records) send_record(*stream, peer_frame(in));
    if (how >= 240) stream->incoming += in.bytes(in.below(40));
    else if (how >= 224) stream->incoming.resize(in.below(stream->incoming.size() + 1));
    else if (how >= 216) stream->ended = true;
    (void)list.add(stream, EPOLLIN);
}

void add_event(event_list &list, fuzz_input &in) {
    switch (in.below(16)) {
    case 0:
    case 1:
    case 2:
    case 3: peer_sends(list, in); break;
    case 4:
        world.next_read_error = read_errors[in.below(std::size(read_errors))];
        peer_sends(list, in);
        break;
    case 5: (void)list.add(choose(kind::stream, in), error_masks[in.below(std::size(error_masks))]); break;
    case 6:
    case 7:
    case 8:
    case 9: (void)expire(list, choose(kind::timer, in)); break;
    case 10:
        world.tun_packet = std::string(in.bytes(in.below(100)));
        world.tun_errno  = in.chance(64) ? 0 : EIO;
        (void)list.add(choose(kind::tun, in), EPOLLIN);
        break;
    case 11: (void)list.add(choose(kind::tun, in), error_masks[in.below(std::size(error_masks))]); break;
    case 12: (void)give_command(list, in); break;
    case 13: world.controller_exists = in.chance(128); break;
    case 14: world.peer_knows_key = in.chance(192); break;
    default:
        if (in.chance(128)) open_foreign();
        else close_foreign();
        break;
    }
}

// ---- the two ways of waiting ----------------------------------------------------------------------------------------

descriptor *next_timer() {
    descriptor *next = nullptr;
    for (descriptor *timer : candidates(kind::timer))
        if (!next || timer->seconds < next->seconds) next = timer;
    return next;
}

bool is_up() {
    const tlsc_sock *sock = tlsc_get_sock();
    return tlsc_dp_state == 1 && sock->ssl_up == 1 && sock->sess && sock->sess->tun_state == 1 && has_armed_timer();
}

// A wait that ends without an event, after its time.
int pass_time(int timeout) {
    MUST(timeout >= 0);
    world.now += timeout / 1000 + 1;
    return 0;
}

// A peer and a kernel as they should be: requests are answered, timers expire in their order.
int wait_healing(event_list &list, int timeout) {
    MUST(++healing_steps < healing_passes);
    if (is_up()) {
        is_healed     = true;
        world.command = command(CLI_CMD_EXIT_CLIENT, 0);
        if (list.add(find(number_of(kind::pipe_in)), EPOLLIN)) return list.count;
        exit_client = 1;  // a run without a command pipe, by contract; only this ends it
        errno       = EINTR;
        return -1;
    }
    const std::string last = world.to_peer.empty() ? "" : world.to_peer.back();
    world.to_peer.clear();
    const auto streams = candidates(kind::stream);
    if (last.size() > 6 && !streams.empty() && (last[6] == frame_request || last[6] == frame_dpd_request)) {
        const std::string response = frame(frame_response, good_response());
        send_record(*streams.back(), last[6] == frame_request ? response : frame(frame_dpd_response, ""));
        (void)list.add(streams.back(), EPOLLIN);
        return list.count;
    }
    (void)expire(list, next_timer());
    if (list.count == 0) return pass_time(timeout);
    return list.count;
}

int on_wait(void *events, int max, int timeout) {
    event_list list{static_cast<epoll_event *>(events), max};
    MUST(timeout >= 0 || has_armed_timer());  // whatever has failed, something wakes it one day
    if (!healing && world.input->empty()) {
        healing      = true;
        world.faults = false;
        close_foreign();
        world.next_read_error = SSL_ERROR_NONE;
        world.peer_knows_key = world.controller_exists = true;
        world.next_read_error                          = SSL_ERROR_NONE;
        world.to_peer.clear();
        world.command = command(CLI_CMD_GW_IP, ADDR_IPV4);  // a connection from scratch, whatever state this is
        if (list.add(find(number_of(kind::pipe_in)), EPOLLIN)) return list.count;
        for (descriptor *stream : candidates(kind::stream)) (void)list.add(stream, EPOLLIN | EPOLLRDHUP);
        if (list.count > 0) return list.count;
    }
    if (healing) return wait_healing(list, timeout);

    fuzz_input &in = *world.input;
    if (fails({EINTR})) return -1;
    const size_t wanted = in.chance(64) ? 1 + in.below(6) : 1;
    for (size_t i = 0; i < wanted; ++i) add_event(list, in);
    if (list.count == 0) {
        if (timeout >= 0) return pass_time(timeout);
        errno = EINTR;
        return -1;
    }
    return list.count;
}

// ---- a life ---------------------------------------------------------------------------------------------------------

void expect_open(kind what, size_t expected) {
    if (count(what) == expected) return;
    fprintf(stderr, "%zu descriptors of kind %d are open, expected %zu\n", count(what), static_cast<int>(what),
            expected);
    MUST(!"something is left open");
}

void run_tunnel_thread() {
    epoll_thread_exited = 0;
    (void)tlsc_start_epoll(nullptr);
    if (epoll_thread_exited == 0) return;  // a failed set-up: the next one releases what it has opened

    // By contract: the connection that a rekey was about to replace outlives the run.
    const size_t kept = tlsc_old_transport.fd > 0 ? 1 : 0;
    MUST(kept == 0 || (find(tlsc_old_transport.fd) && find(tlsc_old_transport.fd)->what == kind::stream));
    expect_open(kind::stream, kept);
    for (const kind what : {kind::epoll, kind::timer, kind::tun, kind::control, kind::fifo_out}) expect_open(what, 0);
    MUST(world.live_ssl <= 1 + static_cast<int>(kept));
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    fuzz_input in(bytes, size);
    begin_process(in);
    const uint8_t settings = in.byte();
    if ((settings & 0x70) == 0x70) tlsc_log_level = settings & 0x80 ? LOG_BUF_PRINT : LOG_DEBUG;
    world.faults    = (settings & 1) != 0;
    world.countdown = world.faults ? in.byte() : 255;
    world.on_wait   = on_wait;
    healing         = false;
    is_healed       = false;
    healing_steps   = 0;

    for (unsigned run = 0; run < most_runs && !in.empty() && !healing; ++run) {
        if (run > 0 && in.chance(128)) (void)tlsc_init();
        run_tunnel_thread();
    }

    healing      = true;
    world.faults = false;
    close_foreign();
    world.peer_knows_key = world.controller_exists = true;
    for (unsigned run = 0; run < healing_runs && !is_healed; ++run) {
        world.to_peer.clear();
        run_tunnel_thread();
    }
    MUST(is_healed);
    MUST(epoll_thread_exited == 1);

    tlsc_release_run();  // what the clean-up of the process does
    expect_open(kind::stream, 0);
    MUST(world.live_ssl == 0);
    return 0;
}
