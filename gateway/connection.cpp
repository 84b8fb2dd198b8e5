#include "connection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <stdexcept>

#include "record_seal.h"
#include "tls.h"

namespace gw {

// Contents: 1 the BIO between OpenSSL and the buffers  2 life  3 receiving  4 sending  5 laboratory  6 ending

namespace {

constexpr size_t receive_size   = 64 * 1024;        // one recv(); several records
constexpr size_t out_high_water = 128 * 1024;       // above it packets wait in the queue
constexpr size_t out_limit      = 4 * 1024 * 1024;  // above it a client that does not read gets no more answers
constexpr int    socket_backlog = 256 * 1024;       // unsent bytes in the kernel above which the socket counts as full
constexpr size_t largest_record = 16384;            // plaintext, RFC 5246
constexpr std::chrono::seconds linger_time{2};      // how long what arrives after our FIN is read and thrown away

// One thread receives: one buffer for all connections.
std::array<uint8_t, receive_size>   receive_buffer;
std::array<uint8_t, largest_record> plain_buffer;

void set_option(int fd, int level, int option, int value) {
    (void)setsockopt(fd, level, option, &value, sizeof value);  // a connection without it is slower, not wrong
}

}  // namespace

// ---- 1 The BIO between OpenSSL and the buffers ----------------------------------------------------------------------

const BIO_METHOD *client_connection::bio_method() {
    static BIO_METHOD *method = [] {
        BIO_METHOD *made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "connection buffers");
        BIO_meth_set_read(made, bio_read);
        BIO_meth_set_write(made, bio_write);
        BIO_meth_set_ctrl(made, bio_ctrl);
        return made;
    }();
    return method;
}

int client_connection::bio_read(BIO *bio, char *to, int size) {
    auto *self = static_cast<client_connection *>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    if (self->input_.empty()) {
        BIO_set_retry_read(bio);
        return -1;
    }
    size_t count = std::min(static_cast<size_t>(size), self->input_.size());
    memcpy(to, self->input_.data(), count);
    self->input_ = self->input_.subspan(count);
    return static_cast<int>(count);
}

int client_connection::bio_write(BIO *bio, const char *from, int size) {
    auto *self = static_cast<client_connection *>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    self->out_.append(from, static_cast<size_t>(size));
    return size;
}

long client_connection::bio_ctrl(BIO *, int command, long, void *) { return command == BIO_CTRL_FLUSH ? 1 : 0; }

// Counts the records written under the present keys: their sequence numbers.
void client_connection::see_message(int write, int, int type, const void *bytes, size_t size, SSL *, void *self) {
    if (!write || type != SSL3_RT_HEADER || size < 1) return;
    auto &written  = static_cast<client_connection *>(self)->records_written_;
    bool  new_keys = *static_cast<const uint8_t *>(bytes) == SSL3_RT_CHANGE_CIPHER_SPEC;
    written        = new_keys ? 0 : written + 1;
}

void client_connection::see_state(const SSL *ssl, int where, int value) {
    if (!(where & SSL_CB_ALERT) || !(where & SSL_CB_READ)) return;
    auto *self         = static_cast<client_connection *>(SSL_get_app_data(ssl));
    self->alert_level_ = value >> 8;
    self->alert_code_  = value & 0xff;
}

// ---- 2 Life ---------------------------------------------------------------------------------------------------------

client_connection::client_connection(uint64_t id, common::unique_fd socket, std::string peer,
                                     const surroundings &around, const bounds &limits)
    : id_(id),
      socket_(std::move(socket)),
      peer_(std::move(peer)),
      owner_(around.owner),
      loop_(around.loop),
      leaving_(around.leaving),
      limits_(limits),
      queue_(limits.queue),
      totals_(around.totals) {
    set_option(socket_.get(), IPPROTO_TCP, TCP_NODELAY, 1);
    set_option(socket_.get(), IPPROTO_TCP, TCP_QUICKACK, 1);
    set_option(socket_.get(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, socket_backlog);
    set_option(socket_.get(), SOL_SOCKET, SO_KEEPALIVE, 1);
    set_option(socket_.get(), IPPROTO_TCP, TCP_KEEPIDLE, 60);
    set_option(socket_.get(), IPPROTO_TCP, TCP_KEEPINTVL, 10);
    set_option(socket_.get(), IPPROTO_TCP, TCP_KEEPCNT, 6);
    interest_ = common::readable;
    watch_.emplace(loop_, socket_.get());
    watch_->start(interest_, [this](unsigned events) { on_event(events); });
}

client_connection::~client_connection() {
    watch_.reset();
    SSL_free(ssl_);
}

std::chrono::milliseconds client_connection::age() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - born_);
}

void client_connection::start_tls(SSL_CTX *context) {
    ssl_     = SSL_new(context);
    BIO *bio = BIO_new(bio_method());
    if (!ssl_ || !bio) {
        BIO_free(bio);
        return end_for_error("cannot create a TLS session: " + take_openssl_error());
    }
    BIO_set_data(bio, this);
    BIO_set_init(bio, 1);
    SSL_set_bio(ssl_, bio, bio);
    SSL_set_app_data(ssl_, this);
    SSL_set_accept_state(ssl_);
    SSL_set_msg_callback(ssl_, see_message);
    SSL_set_msg_callback_arg(ssl_, this);
    SSL_set_info_callback(ssl_, see_state);
    state_ = phase::handshake;
    handshake_timer_.emplace(loop_);
    handshake_timer_->start(limits_.handshake, [this] {
        owner_.on_tls_failed(*this, "timeout");
        if (state_ == phase::ended) return;
        let_go(std::chrono::milliseconds(0));
        end({"gateway", "timeout", "handshake"});
    });
}

void client_connection::stall(bool read) {
    state_   = phase::stalled;
    reading_ = read;
    update_interest();
}

// ---- 3 Receiving ----------------------------------------------------------------------------------------------------

void client_connection::on_event(unsigned events) {
    if (silent_ || !reading_) return notice_end();
    if (events & common::readable) receive();
    if (state_ != phase::ended && (events & common::writable)) {
        blocked_ = false;
        flush();
    }
}

// The connection is not read: all that can be seen is that the peer has ended it.
void client_connection::notice_end() {
    int       error = 0;
    socklen_t size  = sizeof error;
    (void)getsockopt(socket_.get(), SOL_SOCKET, SO_ERROR, &error, &size);
    end({"peer", error ? "rst" : "fin", error ? strerror(error) : "while not read"});
}

void client_connection::receive() {
    ssize_t count = recv(socket_.get(), receive_buffer.data(), receive_buffer.size(), 0);
    if (count < 0) {
        if (errno == EAGAIN || errno == EINTR) return;
        if (state_ == phase::handshake) owner_.on_tls_failed(*this, strerror(errno));
        return end({"peer", errno == ECONNRESET || errno == EPIPE ? "rst" : "error", strerror(errno)});
    }
    // The kernel leaves this mode by itself. Without it an answer to two small packets of a client with Nagle's
    // algorithm takes 40 ms.
    set_option(socket_.get(), IPPROTO_TCP, TCP_QUICKACK, 1);
    if (count == 0) {
        if (state_ == phase::handshake) owner_.on_tls_failed(*this, "fin");
        return end({"peer", "fin", parser_.pending() ? "inside a frame" : ""});
    }
    input_ = {receive_buffer.data(), static_cast<size_t>(count)};
    ERR_clear_error();
    if (state_ == phase::handshake) continue_handshake();
    if (state_ == phase::open) read_frames();
    input_ = {};
}

void client_connection::continue_handshake() {
    int result = SSL_do_handshake(ssl_);
    int error  = result == 1 ? SSL_ERROR_NONE : SSL_get_error(ssl_, result);
    if (!out_.empty()) owner_.on_output(*this);
    if (error == SSL_ERROR_WANT_READ) return;
    if (error != SSL_ERROR_NONE) return fail_handshake(take_openssl_error());

    handshake_timer_.reset();
    state_ = phase::open;
    owner_.on_tls_up(*this);
}

void client_connection::fail_handshake(const std::string &reason) {
    if (alert_code_ >= 0) owner_.on_alert(*this, alert_level_, alert_code_);
    owner_.on_tls_failed(*this, reason);
    if (state_ == phase::ended) return;
    bool by_peer = alert_code_ >= 0;
    flush();  // our alert
    if (state_ == phase::ended) return;
    let_go(std::chrono::milliseconds(0));
    end({by_peer ? "peer" : "gateway", "alert", reason});
}

void client_connection::read_frames() {
    while (state_ == phase::open) {
        int count = SSL_read(ssl_, plain_buffer.data(), static_cast<int>(plain_buffer.size()));
        if (count <= 0) return stop_reading(count);
        this->count(counter::bytes_rx, static_cast<uint64_t>(count));
        if (!take_plain({plain_buffer.data(), static_cast<size_t>(count)})) return;
    }
}

bool client_connection::take_plain(byte_view plain) {
    auto result = parser_.feed(plain, [this](const cstp_frame &frame) {
        count(counter::frames_rx);
        owner_.on_frame(*this, frame);
        return state_ == phase::open;
    });
    if (result == frame_parser::result::ok) return true;
    if (result != frame_parser::result::stopped) owner_.on_bad_stream(*this, result, plain);
    return false;
}

void client_connection::stop_reading(int result) {
    int error = SSL_get_error(ssl_, result);
    if (error == SSL_ERROR_WANT_READ) {
        if (alert_code_ >= 0) {  // a warning
            owner_.on_alert(*this, alert_level_, alert_code_);
            alert_code_ = -1;
        }
        return;
    }
    if (alert_code_ >= 0) owner_.on_alert(*this, alert_level_, alert_code_);
    if (state_ == phase::ended) return;
    if (error == SSL_ERROR_ZERO_RETURN) {
        (void)SSL_shutdown(ssl_);  // our close_notify
        flush();
        if (state_ == phase::ended) return;
        let_go(std::chrono::milliseconds(0));
        return end({"peer", "close_notify", ""});
    }
    std::string reason = take_openssl_error();
    if (alert_code_ >= 0) return end({"peer", "alert", reason});
    flush();  // OpenSSL's alert
    if (state_ == phase::ended) return;
    let_go(std::chrono::milliseconds(0));
    end({"gateway", "error", reason});
}

// ---- 4 Sending ------------------------------------------------------------------------------------------------------

bool client_connection::write_record(byte_view bytes) {
    int result = SSL_write(ssl_, bytes.data(), static_cast<int>(bytes.size()));
    if (result > 0) {
        count(counter::bytes_tx, bytes.size());
        return true;
    }
    end_for_error("cannot write: " + take_openssl_error());
    return false;
}

bool client_connection::send_frame(uint8_t type, byte_view payload) {
    if (!can_send() || out_.size() > out_limit) return false;
    if (!write_record(make_frame(type, payload))) return false;
    count(counter::frames_tx);
    owner_.on_output(*this);
    return true;
}

bool client_connection::send_data(byte_view frame) {
    if (!can_send()) return false;
    if (queue_.empty() && !silent_ && out_.size() < out_high_water) {
        if (!write_record(frame)) return false;
    } else if (!queue_.push(frame)) {
        return false;
    }
    count(counter::frames_tx);
    owner_.on_output(*this);
    return true;
}

void client_connection::fill_from_queue() {
    while (!queue_.empty() && out_.size() < out_high_water && can_send()) {
        if (!write_record(queue_.front())) return;
        queue_.pop();
    }
}

void client_connection::flush() {
    while (state_ != phase::ended && !silent_ && !blocked_ && !half_shut_) {
        fill_from_queue();
        size_t size = std::min(out_.size(), sendable_);
        if (state_ == phase::ended || size == 0) break;
        ssize_t sent = send(socket_.get(), out_.data(), size, MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN)
                return end({"peer", errno == ECONNRESET || errno == EPIPE ? "rst" : "error", strerror(errno)});
            blocked_ = true;
            break;
        }
        out_.consume(static_cast<size_t>(sent));
        if (sendable_ != SIZE_MAX) sendable_ -= static_cast<size_t>(sent);
    }
    if (state_ != phase::ended) update_interest();
}

void client_connection::update_interest() {
    // Unread input would make a level-triggered watch spin; hung_up tells of the peer's end without reading.
    unsigned wanted = silent_ || !reading_ ? common::hung_up : common::readable | (blocked_ ? common::writable : 0u);
    if (wanted == interest_) return;
    interest_ = wanted;
    watch_->change(wanted);
}

// ---- 5 Laboratory ---------------------------------------------------------------------------------------------------

void client_connection::send_record(uint8_t type, byte_view plain) {
    if (!can_send()) throw std::runtime_error("the connection cannot send");
    if (plain.size() > crafted_record_limit)
        throw std::runtime_error("a record of more than " + std::to_string(crafted_record_limit) + " bytes");
    if (type == SSL3_RT_APPLICATION_DATA && !plain.empty() && plain.size() <= largest_record) (void)write_record(plain);
    else craft_record(type, plain);
    owner_.on_output(*this);
}

// OpenSSL writes a stand-in, which uses up the sequence number; the crafted record takes its place.
void client_connection::craft_record(uint8_t type, byte_view plain) {
    if (!can_seal_record(ssl_)) throw std::runtime_error("such a record cannot be made with this cipher");
    size_t                   before      = out_.size();
    static constexpr uint8_t stand_in[1] = {0};
    if (SSL_write(ssl_, stand_in, sizeof stand_in) <= 0)
        throw std::runtime_error("cannot write: " + take_openssl_error());
    byte_vector record = seal_record(ssl_, type, plain, records_written_ - 1, out_.from(before));
    out_.truncate(before);
    out_.append(record.data(), record.size());
    count(counter::bytes_tx, plain.size());
}

void client_connection::send_raw(byte_view bytes) {
    if (state_ == phase::ended || half_shut_) throw std::runtime_error("the connection cannot send");
    out_.append(bytes.data(), bytes.size());
    owner_.on_output(*this);
}

void client_connection::interrupt_output(size_t first, std::chrono::milliseconds gap) {
    sendable_ = first;
    gap_timer_.emplace(loop_);
    gap_timer_->start(gap, [this] {
        sendable_ = SIZE_MAX;
        flush();
    });
}

void client_connection::set_silent(bool silent) {
    silent_ = silent;
    update_interest();
    if (!silent) owner_.on_output(*this);
}

void client_connection::shut_sending() {
    flush();
    if (state_ == phase::ended || half_shut_) return;
    half_shut_ = true;
    (void)shutdown(socket_.get(), SHUT_WR);
}

// ---- 6 Ending -------------------------------------------------------------------------------------------------------

farewells::farewell::farewell(common::loop &loop, common::unique_fd left)
    : socket(std::move(left)), watch(loop, socket.get()), fin(loop), end(loop) {}

void farewells::add(common::unique_fd socket, std::chrono::milliseconds before_fin) {
    auto here = open_.emplace(open_.end(), loop_, std::move(socket));
    int  fd   = here->socket.get();
    here->watch.start(common::readable, [this, here, fd](unsigned) {
        uint8_t scrap[4096];
        ssize_t count = recv(fd, scrap, sizeof scrap, 0);
        if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) open_.erase(here);
    });
    if (before_fin.count() == 0) (void)shutdown(fd, SHUT_WR);
    else here->fin.start(before_fin, [fd] { (void)shutdown(fd, SHUT_WR); });
    here->end.start(before_fin + linger_time, [this, here] { open_.erase(here); });
}

void client_connection::let_go(std::chrono::milliseconds before_fin) {
    watch_.reset();
    leaving_.add(std::move(socket_), before_fin);
}

void client_connection::end(const connection_end &ending) {
    if (state_ == phase::ended) return;
    state_ = phase::ended;
    watch_.reset();
    handshake_timer_.reset();
    gap_timer_.reset();
    socket_.reset();
    owner_.on_ended(*this, ending);
}

void client_connection::end_with_fin(const std::string &detail) {
    flush();
    if (state_ == phase::ended) return;
    let_go(std::chrono::milliseconds(0));
    end({"gateway", "fin", detail});
}

void client_connection::end_with_notify(const std::string &detail) {
    if (can_send()) (void)SSL_shutdown(ssl_);
    flush();
    if (state_ == phase::ended) return;
    let_go(std::chrono::milliseconds(0));
    end({"gateway", "close_notify", detail});
}

void client_connection::end_with_reset(const std::string &detail) {
    if (state_ == phase::ended) return;
    struct linger hard = {.l_onoff = 1, .l_linger = 0};
    (void)setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    end({"gateway", "rst", detail});
}

void client_connection::end_with_alert(int level, int code) {
    // Data that arrives together with a FIN is not read by a client that watches for the FIN first.
    static constexpr std::chrono::milliseconds time_to_read_alert{200};
    const uint8_t                              alert[]  = {static_cast<uint8_t>(level), static_cast<uint8_t>(code)};
    const uint8_t                              record[] = {SSL3_RT_ALERT, 3, 3, 0, 2, alert[0], alert[1]};
    if (state_ == phase::open) send_record(SSL3_RT_ALERT, alert);
    else send_raw(record);
    flush();
    if (state_ == phase::ended) return;
    let_go(time_to_read_alert);
    end({"gateway", "alert", "code " + std::to_string(code)});
}

void client_connection::end_for_error(const std::string &detail) {
    if (state_ == phase::ended) return;
    let_go(std::chrono::milliseconds(0));
    end({"gateway", "error", detail});
}

}  // namespace gw
