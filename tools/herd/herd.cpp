// Many tunnel clients in one process, for measuring a gateway: sessions that connect, shake hands, configure
// themselves, ask whether the gateway is alive, exchange packets, rekey, lose their gateway and come back.
//
// usage: tlsc-herd ADDRESS PORT KEY [BACKOFF-SECONDS]
//
// Session number N is the device "herd-N" with that key. Commands come as lines on standard input, and each is answered
// with one JSON object in one line:
//
//   open COUNT RATE        starts sessions until there are COUNT, RATE a second (0: at once); waits until all are up
//   run SECONDS            lets the sessions live
//   echo COUNT WINDOW SIZE SECONDS SITE
//                          that many sessions send pings of SIZE bytes to SITE, WINDOW of them unanswered
//   up COUNT SIZE SECONDS SITE
//                          that many sessions send UDP packets of SIZE bytes to SITE's discard port, as many as go
//   rekey                  every session makes a second connection, and gives the first one up once that is up
//   await COUNT SECONDS    waits until COUNT sessions are up (again)
//   die                    every session's connection is reset; the sessions are forgotten
//   quit
//
// A session whose connection ends, or which is not up in time, tries again after the back-off of a device:
// BACKOFF-SECONDS (10), then up to a fifth more each time.

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <queue>
#include <random>
#include <string>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

// Contents: 1 settings and figures  2 timers  3 one connection  4 sessions  5 packets  6 the loop  7 commands

// ---- 1 Settings and figures -----------------------------------------------------------------------------------------

using moment  = std::chrono::steady_clock::time_point;
using seconds = std::chrono::duration<double>;

constexpr size_t  header_size      = 8;     // "STF", version, 16-bit length, type, reserved
constexpr int     largest_read     = 1500;  // bytes, as a client reads from its TLS session
constexpr uint8_t frame_data       = 0;
constexpr uint8_t frame_request    = 1;
constexpr uint8_t frame_response   = 2;
constexpr uint8_t frame_dpd        = 3;
constexpr uint8_t frame_dpd_answer = 4;
constexpr double  set_up_limit     = 10;   // seconds from connect to configuration response, as a client's guard
constexpr double  ping_patience    = 0.5;  // seconds after which a ping counts as lost
constexpr int     frames_per_turn  = 32;   // read from one session before the others get their turn
constexpr size_t  ipv4_header      = 20;
constexpr size_t  icmp_header      = 8;
constexpr size_t  udp_header       = 8;

struct settings {
    sockaddr_in gateway{};
    std::string key;
    double      backoff = 10;  // seconds
} chosen;

// What has happened since the last command.
struct tally {
    uint64_t              connects = 0, ups = 0, refused = 0, failed = 0, late = 0, lost = 0;
    uint64_t              dpd_sent = 0, dpd_answered = 0, dpd_missed = 0;
    uint64_t              pings_lost = 0, packets_out = 0, bytes_out = 0, packets_in = 0, bytes_in = 0;
    uint64_t              rekeyed = 0;
    std::vector<double>   set_up_ms;  // from connect to configuration response
    std::vector<double>   echo_us;    // from ping to its answer
    std::map<int, size_t> attempts;   // how many attempts it took to come up
} counted;

moment now() { return std::chrono::steady_clock::now(); }
double since(moment start) { return seconds(now() - start).count(); }
moment later(double delay) { return now() + std::chrono::duration_cast<moment::duration>(seconds(delay)); }

[[noreturn]] void die(const char *what) {
    fprintf(stderr, "tlsc-herd: %s: %s\n", what, strerror(errno));
    exit(1);
}

// ---- 2 Timers -------------------------------------------------------------------------------------------------------
// A timer names what it is for; one that has lost its meaning by the time it is due does nothing.

enum class purpose {
    retry,
    guard,
    dpd
};

struct timer {
    moment   due;
    purpose  what;
    size_t   session;
    uint64_t life;  // of the connection, or the attempt, for which it was started

    bool operator>(const timer &other) const { return due > other.due; }
};

std::priority_queue<timer, std::vector<timer>, std::greater<>> timers;

// ---- 3 One connection -----------------------------------------------------------------------------------------------

int      epoll_fd;
SSL_CTX *context;
uint64_t lives = 0;

struct connection {
    size_t               session = 0;
    uint64_t             life    = ++lives;
    int                  fd      = -1;
    SSL                 *ssl     = nullptr;
    moment               started = now();
    bool                 secure = false, configured = false, wants_out = false;
    bool                 dpd_open = false;  // a request without an answer
    std::vector<uint8_t> unsent;            // a frame that the socket did not take

    explicit connection(size_t number) : session(number) {}
    ~connection() {
        SSL_free(ssl);
        if (fd >= 0) close(fd);
    }
    connection(const connection &)            = delete;
    connection &operator=(const connection &) = delete;
};

struct session {
    std::unique_ptr<connection> current, fresh;  // fresh: a rekey's, until it is configured
    std::string                 address, cookie;
    uint32_t                    inner    = 0;   // network byte order
    int                         attempts = 0;   // since it was last up
    double                      backoff  = 0;   // seconds, 0 before the first failure
    double                      dpd      = 10;  // seconds
    uint16_t                    sequence = 0;   // of its pings
    std::map<uint16_t, moment>  pings;          // without an answer
};

std::vector<session> sessions;
size_t               sessions_up = 0;

unsigned give_key(SSL *ssl, const char *, char *identity, unsigned limit, unsigned char *key, unsigned key_limit) {
    const auto *self = static_cast<connection *>(SSL_get_app_data(ssl));
    if (chosen.key.size() > key_limit) return 0;
    snprintf(identity, limit, "herd-%zu", self->session);
    memcpy(key, chosen.key.data(), chosen.key.size());
    return static_cast<unsigned>(chosen.key.size());
}

void watch(connection &c, bool out) {
    c.wants_out = out;
    epoll_event event{};
    event.events   = EPOLLIN | (out ? static_cast<uint32_t>(EPOLLOUT) : 0u);
    event.data.ptr = &c;
    if (epoll_ctl(epoll_fd, EPOLL_CTL_MOD, c.fd, &event) != 0) die("epoll_ctl");
}

std::unique_ptr<connection> open_connection(size_t number) {
    auto c = std::make_unique<connection>(number);
    c->fd  = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (c->fd < 0) die("socket");
    c->ssl = SSL_new(context);
    if (!c->ssl) die("SSL_new");
    SSL_set_app_data(c->ssl, c.get());
    SSL_set_fd(c->ssl, c->fd);
    SSL_set_connect_state(c->ssl);
    epoll_event event{};
    event.events   = EPOLLIN | EPOLLOUT;
    event.data.ptr = c.get();
    c->wants_out   = true;
    if (epoll_ctl(epoll_fd, EPOLL_CTL_ADD, c->fd, &event) != 0) die("epoll_ctl");
    (void)connect(c->fd, reinterpret_cast<sockaddr *>(&chosen.gateway), sizeof chosen.gateway);  // told by epoll
    timers.push({later(set_up_limit), purpose::guard, number, c->life});
    counted.connects++;
    return c;
}

// Events that were fetched for a connection may outlive it in the same turn: it is freed when the turn is over.
std::vector<std::unique_ptr<connection>> buried;

void bury(std::unique_ptr<connection> c, bool reset = false) {
    if (!c) return;
    const linger hard = {.l_onoff = 1, .l_linger = 0};
    if (reset) (void)setsockopt(c->fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    close(c->fd);
    c->fd = -1;
    buried.push_back(std::move(c));
}

// ---- 4 Sessions -----------------------------------------------------------------------------------------------------

void come_up(session &self, connection &c);

void start_attempt(size_t number) {
    sessions[number].attempts++;
    sessions[number].current = open_connection(number);
}

// The connection is over or did not come about: back-off as a device's, 10 seconds and then up to a fifth more each
// time.
void lose(connection &c, uint64_t &counter) {
    counter++;
    session &self = sessions[c.session];
    if (self.fresh.get() == &c) return bury(std::move(self.fresh));
    static std::minstd_rand random(1);
    if (self.current->configured) sessions_up--;
    const auto growth = static_cast<unsigned>(self.backoff / 5);
    self.backoff      = self.backoff == 0 ? chosen.backoff : self.backoff + (growth ? random() % growth : 0);
    self.pings.clear();
    bury(std::move(self.fresh));
    bury(std::move(self.current));
    timers.push({later(self.backoff), purpose::retry, static_cast<size_t>(&self - sessions.data()), ++lives});
}

bool write_frame(connection &c, uint8_t type, const void *payload, size_t size) {
    if (!c.unsent.empty()) return false;
    c.unsent = {'S', 'T', 'F', 1, static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size), type, 0};
    c.unsent.insert(c.unsent.end(), static_cast<const uint8_t *>(payload),
                    static_cast<const uint8_t *>(payload) + size);
    const int written = SSL_write(c.ssl, c.unsent.data(), static_cast<int>(c.unsent.size()));
    if (written > 0) c.unsent.clear();
    else if (SSL_get_error(c.ssl, written) == SSL_ERROR_WANT_WRITE && !c.wants_out) watch(c, true);
    return true;
}

void send_request(connection &c) {
    const session    &self = sessions[c.session];
    const std::string name = "herd-" + std::to_string(c.session);
    std::string       text;
    if (!self.address.empty()) text += "X-CSTP-Address:" + self.address + "\n";
    text += "X-CSTP-Device-ID:" + name + "\n";
    if (!self.cookie.empty()) text += "X-CSTP-Cookie:" + self.cookie + "\n";
    text += "X-CSTP-Device-Name:" + name + "\n";
    (void)write_frame(c, frame_request, text.data(), text.size());
}

std::string header_value(const std::string &text, const std::string &name) {
    const size_t at = text.find(name);
    if (at == std::string::npos) return "";
    const size_t start = at + name.size();
    return text.substr(start, text.find('\n', start) - start);
}

void take_response(connection &c, const std::string &text) {
    session &self = sessions[c.session];
    self.address  = header_value(text, "X-CSTP-Address-Client:");
    self.cookie   = header_value(text, "X-CSTP-Cookie:");
    self.dpd      = std::max(5.0, atof(header_value(text, "X-CSTP-DPD:").c_str()));
    if (inet_pton(AF_INET, self.address.c_str(), &self.inner) != 1) return lose(c, counted.failed);
    come_up(self, c);
}

void come_up(session &self, connection &c) {
    c.configured = true;
    counted.ups++;
    counted.set_up_ms.push_back(since(c.started) * 1000);
    timers.push({later(self.dpd), purpose::dpd, c.session, c.life});
    if (self.fresh.get() == &c) {  // the rekey is done
        counted.rekeyed++;
        bury(std::move(self.current));
        self.current = std::move(self.fresh);
        return;
    }
    sessions_up++;
    counted.attempts[self.attempts]++;
    self.attempts = 0;
    self.backoff  = 0;
}

void on_timer(const timer &due) {
    session &self = sessions[due.session];
    if (due.what == purpose::retry) {
        if (!self.current) start_attempt(due.session);
        return;
    }
    connection *c = self.current.get();
    if (self.fresh && self.fresh->life == due.life) c = self.fresh.get();
    if (!c || c->life != due.life) return;
    if (due.what == purpose::guard) {
        if (!c->configured) lose(*c, counted.late);
        return;
    }
    if (c->dpd_open) counted.dpd_missed++;
    c->dpd_open = write_frame(*c, frame_dpd, nullptr, 0);
    counted.dpd_sent += c->dpd_open;
    timers.push({later(self.dpd), purpose::dpd, due.session, due.life});
}

// ---- 5 Packets ------------------------------------------------------------------------------------------------------

// What the sessions do with packets at present.
struct traffic {
    enum class kind {
        none,
        echo,
        up
    } what            = kind::none;
    size_t   sessions = 0;  // the first so many take part
    size_t   window   = 0;  // pings without an answer, per session
    size_t   size     = 0;  // bytes of a packet, IP header included
    uint32_t site     = 0;  // network byte order
} load;

void put_u16(uint8_t *at, size_t value) {
    at[0] = static_cast<uint8_t>(value >> 8);
    at[1] = static_cast<uint8_t>(value);
}

uint16_t checksum(const uint8_t *bytes, size_t size) {
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < size; i += 2) sum += static_cast<uint32_t>(bytes[i] << 8 | bytes[i + 1]);
    if (size & 1) sum += static_cast<uint32_t>(bytes[size - 1] << 8);
    while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

// An IPv4 packet from the session to the site; its payload is zero.
std::vector<uint8_t> packet_to_site(const session &self, uint8_t protocol) {
    std::vector<uint8_t> packet(load.size);
    packet[0] = 0x45;
    put_u16(&packet[2], load.size);
    packet[8] = 64;
    packet[9] = protocol;
    memcpy(&packet[12], &self.inner, 4);
    memcpy(&packet[16], &load.site, 4);
    put_u16(&packet[10], checksum(packet.data(), ipv4_header));
    return packet;
}

bool send_ping(session &self, connection &c) {
    auto     packet = packet_to_site(self, IPPROTO_ICMP);
    uint8_t *icmp   = &packet[ipv4_header];
    icmp[0]         = 8;  // echo request
    put_u16(icmp + 4, c.session);
    put_u16(icmp + 6, ++self.sequence);
    put_u16(icmp + 2, checksum(icmp, load.size - ipv4_header));
    if (!write_frame(c, frame_data, packet.data(), packet.size())) return false;
    self.pings[self.sequence] = now();
    counted.packets_out++;
    counted.bytes_out += packet.size();
    return true;
}

bool send_datagram(const session &self, connection &c) {
    auto     packet = packet_to_site(self, IPPROTO_UDP);
    uint8_t *udp    = &packet[ipv4_header];
    put_u16(udp, 40000);
    put_u16(udp + 2, 9);  // discard
    put_u16(udp + 4, load.size - ipv4_header);
    if (!write_frame(c, frame_data, packet.data(), packet.size())) return false;
    counted.packets_out++;
    counted.bytes_out += packet.size();
    return true;
}

void offer_traffic(session &self, connection &c) {
    if (c.session >= load.sessions || !c.configured || self.current.get() != &c) return;
    if (load.what == traffic::kind::echo) {
        while (self.pings.size() < load.window && c.unsent.empty() && send_ping(self, c)) {}
    } else if (load.what == traffic::kind::up) {
        for (int i = 0; i < frames_per_turn && c.unsent.empty(); i++) (void)send_datagram(self, c);
        if (c.unsent.empty() && !c.wants_out) watch(c, true);
    }
}

// Pings that were lost make room for others.
void give_up_pings() {
    for (session &self : sessions) {
        while (!self.pings.empty() && since(self.pings.begin()->second) > ping_patience) {
            self.pings.erase(self.pings.begin());
            counted.pings_lost++;
        }
        if (self.current) offer_traffic(self, *self.current);
    }
}

void take_packet(connection &c, const uint8_t *packet, size_t size) {
    counted.packets_in++;
    counted.bytes_in += size;
    if (load.what != traffic::kind::echo || size < ipv4_header + icmp_header || packet[9] != IPPROTO_ICMP) return;
    const uint8_t *icmp = packet + ipv4_header;
    if (icmp[0] != 0) return;  // echo reply
    session   &self  = sessions[c.session];
    const auto found = self.pings.find(static_cast<uint16_t>(icmp[6] << 8 | icmp[7]));
    if (found == self.pings.end()) return;
    counted.echo_us.push_back(since(found->second) * 1e6);
    counted.pings_lost += static_cast<uint64_t>(std::distance(self.pings.begin(), found));
    self.pings.erase(self.pings.begin(), std::next(found));
    offer_traffic(self, c);
}

// ---- 6 The loop -----------------------------------------------------------------------------------------------------

void take_frame(connection &c, const uint8_t *frame, size_t size) {
    const size_t length = static_cast<size_t>(frame[4] << 8 | frame[5]);
    if (size < header_size || length > size - header_size) return;
    if (frame[6] == frame_response)
        return take_response(c, std::string(reinterpret_cast<const char *>(frame + header_size), length));
    if (frame[6] == frame_dpd_answer) {
        counted.dpd_answered++;
        c.dpd_open = false;
    }
    if (frame[6] == frame_data) take_packet(c, frame + header_size, length);
}

bool shake_hands(connection &c) {
    const int result = SSL_do_handshake(c.ssl);
    if (result == 1) {
        c.secure = true;
        send_request(c);
        if (c.unsent.empty()) watch(c, false);
        return true;
    }
    const int error = SSL_get_error(c.ssl, result);
    if (error == SSL_ERROR_WANT_READ) {
        if (c.wants_out) watch(c, false);
    } else if (error != SSL_ERROR_WANT_WRITE) {
        ERR_clear_error();
        int       reason = 0;
        socklen_t size   = sizeof reason;
        (void)getsockopt(c.fd, SOL_SOCKET, SO_ERROR, &reason, &size);
        lose(c, errno == ECONNREFUSED || reason == ECONNREFUSED ? counted.refused : counted.failed);
    }
    return false;
}

void flush(connection &c) {
    if (!c.unsent.empty()) {
        const int written = SSL_write(c.ssl, c.unsent.data(), static_cast<int>(c.unsent.size()));
        if (written <= 0) return;
        c.unsent.clear();
    }
    if (load.what != traffic::kind::up || c.session >= load.sessions) watch(c, false);
    offer_traffic(sessions[c.session], c);
}

void read_frames(connection &c) {
    for (int i = 0; i < frames_per_turn && c.fd >= 0; i++) {
        uint8_t   frame[largest_read];
        const int count = SSL_read(c.ssl, frame, sizeof frame);
        if (count > 0) {
            take_frame(c, frame, static_cast<size_t>(count));
            continue;
        }
        const int error = SSL_get_error(c.ssl, count);
        if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) return;
        ERR_clear_error();
        return lose(c, counted.lost);
    }
}

void on_event(connection &c, uint32_t events) {
    if (c.fd < 0) return;
    if (!c.secure) {
        if (!shake_hands(c)) return;
    } else if (events & EPOLLOUT) {
        flush(c);
    }
    if (c.fd >= 0 && (events & (EPOLLIN | EPOLLHUP | EPOLLERR))) read_frames(c);
}

// Serves the sessions until the time is over or done() says so.
template <class condition>
void live_until(moment end, const condition &done) {
    epoll_event events[256];
    moment      look = later(ping_patience);
    while (!done() && now() < end) {
        while (!timers.empty() && timers.top().due <= now()) {
            const timer due = timers.top();
            timers.pop();
            on_timer(due);
        }
        const moment next  = timers.empty() ? end : std::min(end, timers.top().due);
        const auto   left  = std::chrono::ceil<std::chrono::milliseconds>(next - now()).count();
        const int    count = epoll_wait(epoll_fd, events, std::size(events),
                                        static_cast<int>(std::clamp<int64_t>(left, 0, 100)));
        for (int i = 0; i < count; i++) on_event(*static_cast<connection *>(events[i].data.ptr), events[i].events);
        buried.clear();
        if (load.what == traffic::kind::echo && now() > look) {
            give_up_pings();
            look = later(ping_patience);
        }
    }
}

// ---- 7 Commands -----------------------------------------------------------------------------------------------------

double quantile(std::vector<double> &values, double which) {
    if (values.empty()) return 0;
    const auto at = static_cast<ptrdiff_t>(which * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + at, values.end());
    return values[static_cast<size_t>(at)];
}

void answer(moment start) {
    std::string attempts;
    for (const auto &[number, count] : counted.attempts)
        attempts += (attempts.empty() ? "\"" : ",\"") + std::to_string(number) + "\":" + std::to_string(count);
    auto u = [](uint64_t value) { return static_cast<unsigned long long>(value); };
    printf(
        "{\"seconds\":%.3f,\"up\":%zu,\"connects\":%llu,\"ups\":%llu,\"refused\":%llu,\"failed\":%llu,\"late\":%llu,"
        "\"lost\":%llu,\"dpd_sent\":%llu,\"dpd_answered\":%llu,\"dpd_missed\":%llu,\"packets_out\":%llu,"
        "\"bytes_out\":%llu,\"packets_in\":%llu,\"bytes_in\":%llu,\"pings_lost\":%llu,\"rekeyed\":%llu,\"set_up_ms\":[%.1f,%.1f,%.1f],"
        "\"echo_us\":[%.0f,%.0f],\"attempts\":{%s}}\n",
        since(start), sessions_up, u(counted.connects), u(counted.ups), u(counted.refused), u(counted.failed),
        u(counted.late), u(counted.lost), u(counted.dpd_sent), u(counted.dpd_answered), u(counted.dpd_missed),
        u(counted.packets_out), u(counted.bytes_out), u(counted.packets_in), u(counted.bytes_in), u(counted.pings_lost),
        u(counted.rekeyed), quantile(counted.set_up_ms, 0.5), quantile(counted.set_up_ms, 0.99),
        quantile(counted.set_up_ms, 1), quantile(counted.echo_us, 0.5), quantile(counted.echo_us, 0.99),
        attempts.c_str());
    fflush(stdout);
    counted = {};
}

bool never() { return false; }

void open_sessions(size_t count, double rate) {
    const moment start = now();
    const size_t first = sessions.size();
    sessions.reserve(count);
    while (sessions.size() < count) {
        sessions.emplace_back();
        start_attempt(sessions.size() - 1);
        if (rate > 0)
            live_until(start + std::chrono::duration_cast<moment::duration>(
                                   seconds(static_cast<double>(sessions.size() - first) / rate)),
                       never);
    }
    live_until(later(set_up_limit + 4 * chosen.backoff), [&] { return sessions_up >= count; });
}

void run_traffic(const traffic &wanted, double length) {
    load = wanted;
    for (session &self : sessions) {
        self.pings.clear();
        if (self.current) offer_traffic(self, *self.current);
    }
    live_until(later(length), never);
    load = {};
    for (session &self : sessions) {
        if (self.current && self.current->configured && self.current->unsent.empty()) watch(*self.current, false);
    }
}

void rekey_all() {
    for (size_t i = 0; i < sessions.size(); i++) {
        if (sessions[i].current && sessions[i].current->configured) sessions[i].fresh = open_connection(i);
    }
    live_until(later(set_up_limit + 1), [] {
        return std::none_of(sessions.begin(), sessions.end(),
                            [](const session &self) { return self.fresh != nullptr; });
    });
}

void forget_all() {
    for (session &self : sessions) {
        bury(std::move(self.fresh), true);
        bury(std::move(self.current), true);
    }
    buried.clear();
    sessions.clear();
    timers      = {};
    sessions_up = 0;
}

// False for a line that is no command.
bool execute(const std::string &line) {
    char         word[16] = "", site[32] = "";
    double       a = 0, b = 0, c = 0, d = 0;
    const int    found = sscanf(line.c_str(), "%15s %lf %lf %lf %lf", word, &a, &b, &c, &d);
    const auto   is    = [&](const char *name, int words) { return strcmp(word, name) == 0 && found >= words; };
    const size_t blank = line.rfind(' ');
    if (blank != std::string::npos) snprintf(site, sizeof site, "%s", line.c_str() + blank + 1);
    const in_addr_t target = inet_addr(site);
    const auto      size   = [](double value) { return static_cast<size_t>(value); };
    const size_t    least  = ipv4_header + std::max(icmp_header, udp_header);

    if (is("open", 3)) open_sessions(size(a), b);
    else if (is("run", 2)) live_until(later(a), never);
    else if (is("echo", 5)) run_traffic({traffic::kind::echo, size(a), size(b), std::max(size(c), least), target}, d);
    else if (is("up", 4)) run_traffic({traffic::kind::up, size(a), 0, std::max(size(b), least), target}, c);
    else if (is("rekey", 1)) rekey_all();
    else if (is("await", 3)) live_until(later(b), [&] { return sessions_up >= size(a); });
    else if (is("die", 1)) forget_all();
    else return false;
    return true;
}

// The next command; the sessions live on while none comes. False at the end of the input.
bool next_line(std::string &line) {
    static std::string text;
    size_t             end;
    while ((end = text.find('\n')) == std::string::npos) {
        char          piece[4096];
        const ssize_t count = read(STDIN_FILENO, piece, sizeof piece);
        if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) return false;
        if (count < 0) live_until(later(0.02), never);
        else text.append(piece, static_cast<size_t>(count));
    }
    line = text.substr(0, end);
    text.erase(0, end + 1);
    return true;
}

void prepare(int argc, char **argv) {
    if (argc < 4 || argc > 5) {
        fprintf(stderr, "usage: tlsc-herd ADDRESS PORT KEY [BACKOFF-SECONDS]\n");
        exit(2);
    }
    chosen.gateway.sin_family = AF_INET;
    chosen.gateway.sin_port   = htons(static_cast<uint16_t>(atoi(argv[2])));
    if (inet_pton(AF_INET, argv[1], &chosen.gateway.sin_addr) != 1) die("address");
    chosen.key = argv[3];
    if (argc == 5) chosen.backoff = atof(argv[4]);

    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) == 0) {
        files.rlim_cur = files.rlim_max;
        (void)setrlimit(RLIMIT_NOFILE, &files);
    }
    signal(SIGPIPE, SIG_IGN);
    (void)fcntl(STDIN_FILENO, F_SETFL, fcntl(STDIN_FILENO, F_GETFL) | O_NONBLOCK);
    epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    context  = SSL_CTX_new(TLS_client_method());
    if (epoll_fd < 0 || !context) die("start");
    SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_psk_client_callback(context, give_key);
    SSL_CTX_set_quiet_shutdown(context, 1);
    if (SSL_CTX_set_cipher_list(context, "PSK-AES256-GCM-SHA384") != 1) die("cipher");
}

}  // namespace

int main(int argc, char **argv) {
    prepare(argc, argv);
    std::string line;
    while (next_line(line) && line != "quit") {
        const moment start = now();
        if (execute(line)) {
            answer(start);
        } else {
            printf("{\"error\":\"not a command\"}\n");
            fflush(stdout);
        }
    }
    forget_all();
    return 0;
}
