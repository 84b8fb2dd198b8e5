// The tunnel thread, from its TLS session to its loop. Each section uses only sections above it; to follow a packet or
// an event, begin at handle_event in the last one.
//
// Contents: 1 TLS set-up  2 connection and TLS I/O  3 registry and state  4 teardown  5 data path  6 commands
//           7 event loop
// A packet out: handle_event -> on_tun_event -> tlsc_tun_read_and_process -> tlsc_write_cstp_data_pak -> tlsc_ssl_write
// A packet in:  handle_event -> on_ssl_event -> tlsc_cstp_read_frame -> tlsc_process_cstp_frame -> tlsc_tun_write
// A timer:      handle_event -> tlsc_handle_timer
// A lost connection: any handler -> tlsc_sock_error, which starts the backoff timer; its expiry connects again

#include "tlsc_engine.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tlsc_openssl.h"

#include "tlsc_config.h"
#include "tlsc_debug.h"
#include "tlsc_transport.h"
#include "tlsc_turn.h"
#include "tlsc_utils.h"

#include "tlsc_cstp.h"      // frames of the packet path, configuration request
#include "tlsc_session.h"   // the session is attached when the thread starts
#include "tlsc_timer.h"     // timers and their expiry, the old transport
#include "tlsc_tun_intf.h"  // interface creation, state, deletion

#include "tlsc_platform.h"  // counters, client restart, dropped orders

// ==== 1 TLS set-up ===============================================================================================
// The main thread builds the TLS context at the first initialisation; every connection of the tunnel thread makes its
// session from it. OpenSSL calls the two callbacks on the tunnel thread, in the middle of a handshake.

ssl_ctx_st *tlsc_ssl_ctx;

namespace {

constexpr int crl_flags    = X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL;
constexpr int verify_depth = 3;

bool is_key_required;  // the context's mechanism is that of pre-shared keys
bool is_key_used;      // in the handshake that runs; set by the callback that hands the key out

pthread_mutex_t *crypto_locks;  // CRYPTO_num_locks() mutexes, null before the set-up and after the clean-up

// The 1.0 series keeps these installed after the locks are gone; 3.0 takes neither.
[[maybe_unused]] void crypto_lock_callback(int mode, int n, const char *, int) {
    if (!crypto_locks) return;
    if (mode & CRYPTO_LOCK) pthread_mutex_lock(&crypto_locks[n]);
    else pthread_mutex_unlock(&crypto_locks[n]);
}

[[maybe_unused]] unsigned long thread_id_callback() { return static_cast<unsigned long>(pthread_self()); }

}  // namespace

void tlsc_init_locks() {
    const int    count = CRYPTO_num_locks();
    const size_t size  = static_cast<size_t>(count) * sizeof(pthread_mutex_t);

    crypto_locks = static_cast<pthread_mutex_t *>(OPENSSL_malloc(size));
    for (int i = 0; crypto_locks && i < count; ++i) pthread_mutex_init(&crypto_locks[i], nullptr);
    TLSC_DEBUG("Initialized the crypto lock array with no. of locks = %d", count);
    CRYPTO_set_id_callback(thread_id_callback);
    CRYPTO_set_locking_callback(crypto_lock_callback);
}

void tlsc_destroy_locks() {
    const int count = CRYPTO_num_locks();

    pthread_mutex_t *locks = crypto_locks;
    crypto_locks           = nullptr;
    for (int i = 0; locks && i < count; ++i) pthread_mutex_destroy(&locks[i]);
    OPENSSL_free(locks);
    TLSC_DEBUG("Destroyed the crypto lock array with no. of locks = %d", count);
}

void tlsc_init_openssl() {
    tlsc_ossl_early_init();
    tlsc_init_locks();
    SSL_library_init();
    SSL_load_error_strings();
    OPENSSL_add_all_algorithms_noconf();
    ENGINE_load_builtin_engines();
    TLSC_INFO("OpenSSL initialized...");
}

int32_t tlsc_load_certs(SSL_CTX *ctx, tlsc_config *conf) {
    if (!ctx || !conf) {
        TLSC_ERROR("Null pointer received for ctx/conf");
        return 0;
    }

    if (SSL_CTX_use_certificate_file(ctx, conf->ssl_certificate, SSL_FILETYPE_PEM) < 1) {
        ERR_print_errors_fp(stderr);
        return 0;
    }
    if (SSL_CTX_use_PrivateKey_file(ctx, conf->ssl_private_key, SSL_FILETYPE_PEM) < 1) {
        ERR_print_errors_fp(stderr);
        return 0;
    }
    if (SSL_CTX_check_private_key(ctx) == 0) {
        TLSC_ERROR("Private key does not match the public certificate");
        return 0;
    }
    if (SSL_CTX_load_verify_locations(ctx, conf->ssl_rootca_bundle, nullptr) != 1) {
        TLSC_ERROR("Loading of ssl root chain failed");
        return 0;
    }
    return 1;
}

namespace {

// Adds the first CRL of the PEM file; one that cannot be read leaves the store without a CRL.
void add_first_crl(X509_STORE *store, FILE *file) {
    X509_CRL *crl = PEM_read_X509_CRL(file, nullptr, nullptr, nullptr);
    if (!crl) return;
    X509_STORE_add_crl(store, crl);
    X509_CRL_free(crl);
}

// Adds the first certificate of the PEM file; false when there is none.
bool add_first_certificate(X509_STORE *store, FILE *file) {
    X509 *root = PEM_read_X509(file, nullptr, nullptr, nullptr);
    if (!root) return false;
    const int added = X509_STORE_add_cert(store, root);
    X509_free(root);
    return added == 1;
}

struct verdict {
    int error;
    int depth;
};

// Verifies one certificate against the store alone, in a context of its own: OpenSSL goes on using the context whose
// callback this is.
verdict verify_alone(X509_STORE *store, X509 *cert) {
    verdict         result{X509_V_ERR_OUT_OF_MEM, 0};
    X509_STORE_CTX *inner = X509_STORE_CTX_new();
    if (!inner) return result;
    if (X509_STORE_CTX_init(inner, store, cert, nullptr) == 1) {
        X509_verify_cert(inner);
        result = {X509_STORE_CTX_get_error(inner), X509_STORE_CTX_get_error_depth(inner)};
    }
    X509_STORE_CTX_free(inner);
    return result;
}

// Closes and frees what the verification opened, on every way out.
struct verification {
    X509_STORE *store = X509_STORE_new();
    FILE       *file  = nullptr;

    verification()                                = default;
    verification(const verification &)            = delete;
    verification &operator=(const verification &) = delete;
    ~verification() {
        close_file();
        X509_STORE_free(store);
    }
    void close_file() {
        if (file) (void)fclose(file);
        file = nullptr;
    }
};

// The CRL and the one certificate that everything is verified against. False when a file or the certificate is missing.
bool load_trust(verification *v, const tlsc_config &conf) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_verify_cert_cb"};

    X509_STORE_set_flags(v->store, crl_flags);
    v->file = fopen(conf.ssl_crl, "re");
    if (!v->file) {
        TLSC_ERROR("Could not open crl file");
        return false;
    }
    add_first_crl(v->store, v->file);
    v->close_file();

    v->file = fopen(conf.ssl_rootca_bundle, "re");
    if (!v->file) {
        TLSC_ERROR("Could not open root certificate file");
        return false;
    }
    if (!add_first_certificate(v->store, v->file)) {
        TLSC_ERROR("Failed to add root certificate to store");
        return false;
    }
    return true;
}

// Returns 1 to accept, 0 to reject.
int tell_verdict(const verdict &result) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_verify_cert_cb"};

    if (result.error == X509_V_OK) {
        TLSC_DEBUG("Verification passed for cert");
        return 1;
    }
    TLSC_ERROR("SSL error in certificate = %d", result.error);
    const char *text = X509_verify_cert_error_string(result.error);
    if (text) TLSC_ERROR("Verification failed for cert, error str = %s", text);
    TLSC_WARNING("Depth of certificate where error occurred = %d", result.depth);
    return 0;
}

}  // namespace

// By contract: OpenSSL's own verdict is ignored; every certificate of the chain must verify directly against the first
// certificate of the bundle.
int tlsc_verify_cert_cb(int, X509_STORE_CTX *store) {
    tlsc_turn turn(TLSC_AT_WORK);
    TLSC_INFO("tlsc_verify_cert_cb received...");
    if (!store) {
        TLSC_ERROR("Null ptr received for store");
        return 0;
    }
    tlsc_config *conf = tlsc_get_config();
    if (!conf) {
        TLSC_ERROR("Null ptr received for conf");
        return 0;
    }
    X509 *cert = X509_STORE_CTX_get_current_cert(store);
    if (!cert) {
        TLSC_ERROR("Could not fetch the current certificate \n");
        return 0;
    }

    verification v;
    if (!v.store || !load_trust(&v, *conf)) return 0;

    const verdict result = verify_alone(v.store, cert);
    X509_STORE_CTX_set_error(store, result.error);  // decides the alert that the peer gets
    ERR_clear_error();                              // reading PEM files to their end queues an error
    return tell_verdict(result);
}

unsigned tlsc_psk_client_cb(SSL *, const char *hint, char *identity, unsigned max_identity_len, unsigned char *psk,
                            unsigned) {
    tlsc_turn turn(TLSC_AT_WORK);
    TLSC_INFO("psk_client_cb received...");
    if (!identity || !psk) {
        TLSC_ERROR("Null ptr received for identity/psk");
        return 0;
    }
    if (hint) {
        char shown[1024];  // the peer's text, which may hold anything; a log line is no longer
        tlsc_log_show(hint, shown, sizeof(shown));
        TLSC_DEBUG("Received PSK-identity-hint '%s'", shown);
    } else {
        TLSC_WARNING("NULL received for PSK-identity-hint, continuing anyway...");
    }

    const int length = BIO_snprintf(identity, max_identity_len, "%s", psk_identity);
    if (length < 0 || static_cast<unsigned>(length) > max_identity_len) {
        TLSC_ERROR("Error in PSK client callback");
        return 0;
    }
    TLSC_DEBUG("created identity '%s' len=%d", identity, length);

    // By contract: the key is the configured text itself, byte for byte, not decoded from hexadecimal.
    const size_t key_length = strlen(psk_key);
    memcpy(psk, psk_key, key_length);  // NOLINT(bugprone-not-null-terminated-result): bytes, no text
    TLSC_INFO("created PSK of len = %ld", static_cast<long>(key_length));
    is_key_used = key_length > 0;
    return static_cast<unsigned>(key_length);
}

namespace {

// Certificates checked by the callback above against the CRL; OpenSSL's own check asks for one at every depth.
void require_checked_certificates(SSL_CTX *ctx) {
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_CLIENT_ONCE, tlsc_verify_cert_cb);
    SSL_CTX_set_verify_depth(ctx, verify_depth);
    X509_VERIFY_PARAM *param = X509_VERIFY_PARAM_new();
    if (!param) return;
    X509_VERIFY_PARAM_set_flags(param, crl_flags);
    SSL_CTX_set1_param(ctx, param);
    X509_VERIFY_PARAM_free(param);
}

}  // namespace

int32_t tlsc_init_ssl_config() {
    tlsc_config *conf = tlsc_get_config();
    if (!conf) {
        TLSC_ERROR("Null ptr received for tlsc_config");
        return 0;
    }
    tlsc_sock *sock = tlsc_get_sock();
    if (!sock) {
        TLSC_ERROR("Null ptr received for client-socket");
        return 0;
    }

    tlsc_ssl_ctx = SSL_CTX_new(TLSv1_2_client_method());
    if (!tlsc_ssl_ctx) {
        TLSC_ERROR("Allocating ssl-ctx failed using API: SSL_CTX_new(), with TLSv1_2 method");
        return 0;
    }
    sock->ssl_ctx = tlsc_ssl_ctx;

    is_key_required = conf->ssl_auth_mech == SSL_AUTH_PSK;
    switch (conf->ssl_auth_mech) {
    case SSL_AUTH_CERTIFICATE:
        if (!tlsc_load_certs(tlsc_ssl_ctx, conf)) return 0;
        require_checked_certificates(tlsc_ssl_ctx);
        break;
    case SSL_AUTH_PSK: SSL_CTX_set_psk_client_callback(tlsc_ssl_ctx, tlsc_psk_client_cb); break;
    default: TLSC_ERROR("Invalid ssl_auth_mechanism found in global-config"); return 0;
    }

    if (!SSL_CTX_set_cipher_list(tlsc_ssl_ctx, conf->cipher_algo)) {
        TLSC_ERROR("Could not set the SSL Cipher: %s", conf->cipher_algo);
        SSL_CTX_free(sock->ssl_ctx);
        sock->ssl_ctx = nullptr;
        tlsc_ssl_ctx  = nullptr;
        return 0;
    }
    TLSC_INFO("Cipher set successfully for SSL-Ctx : %s", conf->cipher_algo);
    SSL_CTX_set_msg_callback(tlsc_ssl_ctx, tlsc_ossl_traced<tlsc_ssl_msg_cb>);
    SSL_CTX_set_info_callback(tlsc_ssl_ctx, tlsc_ssl_info_cb);
    tlsc_ossl_set_ctx_options(tlsc_ssl_ctx);
    SSL_CTX_set_quiet_shutdown(tlsc_ssl_ctx, 1);
    return 1;
}

// ==== 2 Connection and TLS I/O ===================================================================================
// The socket is blocking for its whole life, without any option set. The transport under the TLS session reads and
// writes it without blocking and waits where it must, for 30 seconds without a byte at most. Invariant: OpenSSL's error
// queue is empty between two calls into it, so that no stale entry colours the class of the next error: whoever makes a
// call that can fail clears it.

namespace {

constexpr int32_t  conn_failed           = 0;
constexpr int32_t  conn_up               = 1;
constexpr int32_t  conn_handshake_failed = 7;
constexpr unsigned request_pause_seconds = 2;  // between the handshake and the configuration request

sockaddr_in server_address(const char *text, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port   = htons(port);
    (void)inet_aton(text, &address.sin_addr);  // By contract: a text that is no address leaves 0.0.0.0.
    return address;
}

int32_t connecting_fd = -1;  // the socket of the connection attempt that waits, up to the end of the handshake

bool connect_to(int32_t fd, const sockaddr_in &address) {
    tlsc_turn pause(TLSC_AT_SAFEPOINT);
    return connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
}

// What a peer does not send or take holds up these four.
int connect_tls(SSL *ssl) {
    const int result = SSL_connect(ssl);
    tlsc_back_to_work();
    return result;
}

int write_tls(SSL *ssl, const void *buff, int length) {
    const int written = SSL_write(ssl, buff, length);
    tlsc_back_to_work();
    return written;
}

int read_tls(SSL *ssl, void *buff, int length) {
    const int count = SSL_read(ssl, buff, length);
    tlsc_back_to_work();
    return count;
}

bool flush_tls() {
    const bool flushed = tlsc_transport_flush(true) == 1;
    tlsc_back_to_work();
    return flushed;
}

int32_t translate_ssl_error(int error) {
    switch (error) {
    case SSL_ERROR_WANT_READ: return TLSC_SSL_WANT_READ;
    case SSL_ERROR_WANT_WRITE: return TLSC_SSL_WANT_WRITE;
    default: return TLSC_SSL_ERROR;
    }
}

struct ssl_error_counters {
    uint64_t tlsc_stats::*total;
    uint64_t tlsc_stats::*want_read;
    uint64_t tlsc_stats::*want_write;
    uint64_t tlsc_stats::*others;
};

constexpr ssl_error_counters ssl_read_errors{
    &tlsc_stats::ssl_read_errors_total, &tlsc_stats::ssl_read_errors_readwouldblock,
    &tlsc_stats::ssl_read_errors_writewouldblock, &tlsc_stats::ssl_read_errors_others};
constexpr ssl_error_counters ssl_write_errors{
    &tlsc_stats::ssl_write_errors_total, &tlsc_stats::ssl_write_errors_readwouldblock,
    &tlsc_stats::ssl_write_errors_writewouldblock, &tlsc_stats::ssl_write_errors_others};

void count_ssl_error(const ssl_error_counters &counters, int error) {
    tlsc_count(counters.total);
    switch (error) {
    case SSL_ERROR_WANT_READ: tlsc_count(counters.want_read); break;
    case SSL_ERROR_WANT_WRITE: tlsc_count(counters.want_write); break;
    default: tlsc_count(counters.others); break;
    }
}

// Sends what the data path has collected. False when that failed: a write error, and the connection is to be torn down.
bool send_collected_records() {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_ssl_write"};

    if (!tlsc_transport_has_collected() || flush_tls()) return true;
    const int saved_errno = errno;
    count_ssl_error(ssl_write_errors, SSL_ERROR_SYSCALL);
    TLSC_ERROR("SSL write error received = %d, translated-ssl-error = %d, write_len = %d, errno = %d",
               SSL_ERROR_SYSCALL, TLSC_SSL_ERROR, -1, saved_errno);
    return false;
}

// The TLS messages are shown to the log only while it wants them.
void follow_log_level(SSL *ssl) {
    static const SSL *session;
    static bool       is_traced;
    const bool        is_wanted = tlsc_log_wanted(LOG_DEBUG);
    if (ssl == session && is_wanted == is_traced) return;

    session   = ssl;
    is_traced = is_wanted;
    if (ssl) SSL_set_msg_callback(ssl, is_wanted ? tlsc_ossl_traced<tlsc_ssl_msg_cb> : nullptr);
}

int32_t give_up_connecting(int32_t fd) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_create_tcp_conn"};

    TLSC_ERROR("TCP connection failed to server");
    connecting_fd = -1;
    tlsc_sock_error(TLSC_DOWN_TCP_CONNECT);
    close(fd);  // not yet known to the teardown
    return conn_failed;
}

// ret: the result of the handshake.
int32_t give_up_handshake(tlsc_sock *sock, const char *server, int ret) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_create_tcp_conn"};

    const int error = tlsc_ossl_get_error(sock->ssl, ret);
    TLSC_ERROR("ssl-connect error : %d, ssl-connect ret-value = %d", error, ret);
    if (error == SSL_ERROR_SSL) {
        char text[256];
        ERR_error_string_n(ERR_get_error(), text, sizeof(text));
        TLSC_ERROR("SSL connect failed!! Error = %s, SSL state = %s", text, SSL_state_string(sock->ssl));
    }
    ERR_clear_error();
    TLSC_WARNING("Could not build a SSL session to: %s, Initiate session and ssl cleanup", server);
    tlsc_sock_error(TLSC_DOWN_SSL_CONNECT);
    return conn_handshake_failed;
}

// The session on the connected socket; the result of the handshake. With a cipher list that names certificate suites
// too, a server could choose one of them and never show that it has the key: such a handshake has failed.
int shake_hands(tlsc_sock *sock, int32_t fd) {
    sock->ssl_fd = fd;
    sock->sockfd = fd;
    (void)tlsc_transport_attach(sock->ssl, fd);  // without it the handshake fails
    SSL_set_connect_state(sock->ssl);
    ERR_clear_error();
    is_key_used   = false;
    const int ret = connect_tls(sock->ssl);
    connecting_fd = -1;
    if (ret != 1 || is_key_used || !is_key_required) return ret;
    ERR_put_error(ERR_LIB_SSL, 0, SSL_R_WRONG_CIPHER_RETURNED, __FILE__, __LINE__);
    return -1;
}

}  // namespace

int32_t tlsc_create_tcp_conn() {
    tlsc_stop_all_timers();
    tlsc_config *conf = tlsc_get_config();
    tlsc_sock   *sock = tlsc_get_sock();
    if (!sock) {
        TLSC_ERROR("Null ptr received for sock");
        return conn_failed;
    }

    (void)send_collected_records();  // to the connection that is replaced
    sock->ssl = SSL_new(sock->ssl_ctx ? sock->ssl_ctx : tlsc_ssl_ctx);
    if (!sock->ssl) {
        TLSC_ERROR("Could not get new SSL handle");
        ERR_clear_error();
        return conn_failed;
    }

    char server[addr_text_size];  // the main thread may read the configuration anew while this one waits below
    tlsc_copy_text(server, sizeof(server), conf->svr_addr_ipv4);
    sock->svr_port = conf->server_port;

    const int32_t fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        TLSC_ERROR("Sock-fd creation failed");
        tlsc_sock_error(TLSC_DOWN_TCP_CONNECT);
        return conn_failed;
    }
    TLSC_INFO("Successfully created new sock-fd for client: %d", fd);

    const sockaddr_in address = server_address(server, sock->svr_port);
    TLSC_INFO("Server port = %d, Server IP(%s) = %u", address.sin_port, server, address.sin_addr.s_addr);
    connecting_fd = fd;
    if (!connect_to(fd, address)) return give_up_connecting(fd);
    TLSC_INFO("TCP conn established successfully!! sockfd = %d", fd);

    const int ret = shake_hands(sock, fd);
    if (ret != 1) return give_up_handshake(sock, server, ret);
    TLSC_INFO("Successfully enabled SSL/TLS session to: %s.", server);
    sock->ssl_up = 1;
    TLSC_DEBUG("Sleeping for 2 seconds, before sending config request to server");
    tlsc_sleep_out_of_turn(request_pause_seconds);
    int32_t cause = TLSC_DOWN_NO_ERROR;
    if (!tlsc_send_config_req(sock, &cause)) tlsc_sock_error(cause);
    return conn_up;
}

// A socket that connect has not been called for refuses with ENOTCONN.
bool tlsc_interrupt_connecting() {
    return connecting_fd <= 0 || shutdown(connecting_fd, SHUT_RDWR) == 0 || errno != ENOTCONN;
}

void tlsc_interrupt_transport() {
    const int32_t fd = tlsc_get_sock()->sockfd;
    if (fd > 0) (void)shutdown(fd, SHUT_RDWR);
}

int32_t tlsc_ssl_write(tlsc_sock *sock, const void *buff, int32_t length, int32_t *result) {
    if (!sock || !buff || !sock->ssl_up || !sock->ssl) {
        TLSC_ERROR("Null ptr received for sock/buffer/sock->ssl_up");
        return 0;
    }

    tlsc_log_hex(buff, length > 0 ? static_cast<size_t>(length) : 0);
    const int written = write_tls(sock->ssl, buff, length);
    if (written < 1) {
        const int     saved_errno = errno;
        const int     error       = tlsc_ossl_get_error(sock->ssl, written);
        const int32_t translated  = translate_ssl_error(error);
        ERR_clear_error();
        count_ssl_error(ssl_write_errors, error);
        TLSC_ERROR("SSL write error received = %d, translated-ssl-error = %d, write_len = %d, errno = %d", error,
                   translated, written, saved_errno);
        if (result) *result = translated;
        return 0;
    }
    if (result) *result = TLSC_SSL_OK;
    return written;
}

int32_t tlsc_ssl_read(tlsc_sock *sock, void *buff, int32_t length, int32_t *result) {
    if (!sock || !buff || !sock->ssl) {
        TLSC_ERROR("Null ptr received for sock/buff");
        return 0;
    }

    const int count = read_tls(sock->ssl, buff, length);
    if (count < 1) {
        const int     error      = tlsc_ossl_get_error(sock->ssl, count);
        const int32_t translated = translate_ssl_error(error);
        ERR_clear_error();
        count_ssl_error(ssl_read_errors, error);
        TLSC_ERROR("SSL Read error received = %d, translated-ssl-error = %d", error, translated);
        if (result) *result = translated;
        return 0;
    }
    if (result) *result = TLSC_SSL_OK;
    return count;
}

void tlsc_ssl_cleanup(SSL *ssl) {
    if (!ssl) {
        TLSC_WARNING("SSL-handle is NULL");
        return;
    }

    TLSC_INFO("SSL-handle and Engine cleanup");
    (void)SSL_shutdown(ssl);  // the peer is not waited for
    const int fd = SSL_get_fd(ssl);
    if (fd > 0) {
        close(fd);
        tlsc_forget_fd_events(fd);
    }
    SSL_free(ssl);
    ERR_clear_error();
}

// The TLS session that still holds the number forgets it, so that its later release cannot close what another thread
// has opened under that number.
void tlsc_close_transport(int32_t fd) {
    close(fd);
    tlsc_forget_fd_events(fd);
    for (SSL *ssl : {tlsc_get_sock()->ssl, tlsc_old_transport.ssl})
        if (ssl && SSL_get_fd(ssl) == fd) tlsc_transport_forget(ssl);
}

int32_t tlsc_set_sock_nonblocking(int32_t fd) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0) {
        TLSC_ERROR("Could not get flags for socket %d", fd);
        return 0;
    }
    if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        TLSC_ERROR("fcntl error while set");
        return 0;
    }
    TLSC_INFO("Setting sock-fd(%d) as non-blocking", fd);
    return 1;
}

int32_t tlsc_set_sock_blocking(int32_t fd) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0) {
        TLSC_ERROR("Could not get flags for socket %d", fd);
        return 0;
    }
    if (fcntl(fd, F_SETFL, ~(~flags & O_NONBLOCK)) < 0) {
        TLSC_ERROR("fcntl error while set");
        return 0;
    }
    TLSC_INFO("Setting sock-fd(%d) as blocking", fd);
    return 1;
}

int32_t tlsc_error_handling(int32_t error) {
    switch (error) {
    case ENOMEM:
    case EMFILE:
    case ENOBUFS:
        TLSC_ERROR("Socket error :%d\n", error);
        (void)fprintf(stderr, "Socket error: %s\n", strerror(error));
        tlsc_restart_client();
        break;
    case EACCES:
    case EINVAL:
    case ENFILE:
    case ENOTTY:
    case EPROTONOSUPPORT:
    case EAFNOSUPPORT: break;
    default: TLSC_INFO("None of the errno specified have occured\n"); break;
    }
    return error;
}

// ==== 3 Registry and state =======================================================================================
// Invariants: a registered descriptor is one of the six timers, the command pipe's read end, the session's TUN
// descriptor, the current transport, or (until the new connection stands) the old transport.
// A descriptor is open only above 0; the context starts with zeroes and uses -1 afterwards.

int32_t      tlsc_epoll_fd = -1;
epoll_event *tlsc_epoll_events;
int8_t       tlsc_dp_state = 1;  // By contract: enabled at process start, and not reset when a thread starts.

namespace {

constexpr int max_events = 80;

tlsc_sock client_sock;  // the one connection context

int pass_count;  // events of the current pass
int pass_next;   // the first of them that has not been handled

}  // namespace

tlsc_sock *tlsc_get_sock() { return &client_sock; }

tlsc_fd_type tlsc_get_fd_type(int32_t fd, const tlsc_sock *sock) {
    if (fd < 1 || !sock) {
        TLSC_ERROR("FD is zero/negative value, or sock ptr is NULL. Return unknown-fd for fd = %d", fd);
        return TLSC_FD_UNKNOWN;
    }
    if (fd == sock->ssl_fd) return TLSC_FD_SSL;
    if (sock->sess && fd == sock->sess->tun_fd) return TLSC_FD_TUN;
    return TLSC_FD_UNKNOWN;
}

int32_t tlsc_add_fd_to_epoll(int32_t epoll_fd, int32_t fd) {
    epoll_event event{};
    event.events  = EPOLLIN | EPOLLRDHUP;
    event.data.fd = fd;
    if (epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &event) != 0) {
        TLSC_ERROR("Could not add fd %d to epoll-event(fd = %d). errno = %d", fd, epoll_fd, errno);
        return 0;
    }
    TLSC_DEBUG("Successfully added fd = %d, to epoll-event", fd);
    return 1;
}

int32_t tlsc_delete_fd_from_epoll(int32_t epoll_fd, int32_t fd) {
    epoll_event unused{};
    if (epoll_ctl(epoll_fd, EPOLL_CTL_DEL, fd, &unused) != 0) {
        TLSC_ERROR("Could not delete fd = %d, from epoll-event. Errno = %d", fd, errno);
        return 0;
    }
    TLSC_DEBUG("Successfully deleted fd = %d, to epoll-event", fd);
    return 1;
}

// An event whose mask was cleared names a descriptor that is gone; epoll itself never returns an empty mask.
void tlsc_forget_fd_events(int32_t fd) {
    for (int i = pass_next; i < pass_count; ++i)
        if (tlsc_epoll_events[i].data.fd == fd) tlsc_epoll_events[i].events = 0;
}

// By contract: the one byte is no whole command, the state does not change, and the line is an ERROR.
void tlsc_set_dp_state(int8_t state) {
    if (state == tlsc_dp_state) {
        TLSC_WARNING("Invalid DP state change req received. State already [%d].", state);
        return;
    }
    if (write(cli_pipe_wr_fd, &state, sizeof(state)) < 0) {}  // nothing depends on it
    TLSC_ERROR("DP state changed. Old state [%d], new state [%d].", tlsc_dp_state, state);
}

// ==== 4 Teardown =================================================================================================
// The one way out of every connection failure. Each step tests before it acts, so a second teardown is harmless.

namespace {

void drop_old_transport() {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_sock_error"};

    TLSC_INFO("Closing the old transport-fd(%d)", tlsc_old_transport.fd);
    if (tlsc_epoll_fd > 0 && !tlsc_delete_fd_from_epoll(tlsc_epoll_fd, tlsc_old_transport.fd))
        TLSC_ERROR("Could not delete the old-transport-fd(%d) from epoll-list", tlsc_old_transport.fd);
    tlsc_close_old_transport();
}

void drop_transport(tlsc_sock *sock) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_sock_error"};

    if (tlsc_epoll_fd > 0 && !tlsc_delete_fd_from_epoll(tlsc_epoll_fd, sock->sockfd))
        TLSC_ERROR("Could not delete the transport-fd(%d) from epoll-list", sock->sockfd);
    tlsc_close_transport(sock->sockfd);

    tlsc_forget_old_transport(sock->sockfd);  // a rekey whose connect failed has kept this very descriptor
    sock->sockfd = -1;
    sock->ssl_fd = -1;
}

}  // namespace

int32_t tlsc_sock_error(int32_t) {
    tlsc_sock   *sock = tlsc_get_sock();
    tlsc_config *conf = tlsc_get_config();

    TLSC_ERROR("Closing connection and bringing down tun interface");
    TLSC_DEBUG("Disable data transfer, new state %d", 0);
    tlsc_dp_state = 0;
    (void)tlsc_transport_flush(false);
    if (tlsc_old_transport.fd > 0 && tlsc_old_transport.fd != sock->sockfd) drop_old_transport();
    if (sock->sockfd > 0) drop_transport(sock);
    sock->ssl_up    = 0;
    conf->cookie[0] = '\0';
    if (sock->sess && sock->sess->tun_state == 1) tlsc_chg_tun_state(sock->sess, 0);
    tlsc_ssl_cleanup(sock->ssl);
    sock->ssl = nullptr;
    tlsc_stop_all_timers();
    if (tlsc_epoll_fd > 0) tlsc_start_timer(&tlsc_timers.backoff, 1);
    return 1;
}

// ==== 5 Data path ================================================================================================
// One packet per readiness event. Addresses are exchanged on the way: the management address on the device's side is
// the assigned inner address on the gateway's side.

namespace {

constexpr size_t source_offset      = 12;  // of the source address in an IPv4 header
constexpr size_t destination_offset = 16;  // of the destination address

struct tun_error_counters {
    uint64_t tlsc_stats::*total;
    uint64_t tlsc_stats::*efault;
    uint64_t tlsc_stats::*einval;
    uint64_t tlsc_stats::*ebadf;
    uint64_t tlsc_stats::*others;
};

constexpr tun_error_counters tun_read_errors{&tlsc_stats::tun_read_errors_total, &tlsc_stats::tun_read_errors_efault,
                                             &tlsc_stats::tun_read_errors_einval, &tlsc_stats::tun_read_errors_ebadf,
                                             &tlsc_stats::tun_read_errors_others};
constexpr tun_error_counters tun_write_errors{&tlsc_stats::tun_write_errors_total, &tlsc_stats::tun_write_errors_efault,
                                              &tlsc_stats::tun_write_errors_einval, &tlsc_stats::tun_write_errors_ebadf,
                                              &tlsc_stats::tun_write_errors_others};

void count_tun_error(const tun_error_counters &counters, int error) {
    tlsc_count(counters.total);
    switch (error) {
    case EFAULT: tlsc_count(counters.efault); break;
    case EINVAL: tlsc_count(counters.einval); break;
    case EBADF: tlsc_count(counters.ebadf); break;
    default: tlsc_count(counters.others); break;
    }
}

bool is_ipv4(const uint8_t *packet) { return packet[0] >> 4 == 4; }

// Puts the address (4 bytes, network order) at offset and repairs the checksums.
void exchange_address(uint8_t *packet, size_t offset, const void *address) {
    const uint32_t old_sum = tlsc_addr_sum(packet + offset);
    memcpy(packet + offset, address, 4);
    tlsc_checksum(packet, old_sum, offset);
}

// What the checksum repair may look at behind a short packet.
void clear_behind(uint8_t *packet, size_t length) {
    if (length < tlsc_checksum_reach) memset(packet + length, 0, tlsc_checksum_reach - length);
}

constexpr const char *resp_names[] = {
    "TLSC_CSTP_RESP_ERR_NONE",      "TLSC_CSTP_START_TIMER_FAILED", "TLSC_CSTP_INVALID_FRAME_RECVD",
    "TLSC_CSTP_FRAME_SIZE_TOO_BIG", "TLSC_CSTP_DATA_WRITE_FAILED",  "TLSC_CSTP_EPOLL_CTL_FAILED",
    "TLSC_CSTP_NULL_PTR_RECVD",     "TLSC_CSTP_INVALID_ADDR",       "TLSC_CSTP_ADDR_NOT_RECVD",
    "TLSC_CSTP_SESS_NOT_FOUND",
};

}  // namespace

const char *tlsc_cstp_resp_name(int32_t resp) {
    if (resp < 0 || static_cast<size_t>(resp) >= std::size(resp_names)) return "No error";
    return resp_names[resp];
}

namespace {

// What a tunnel that goes on under newly read settings needs of the earlier ones.
struct {
    bool    has_address;
    uint8_t address[4];                                        // assigned by the gateway; until it assigns one again
    char    if_name[sizeof(tlsc_config::tun_interface_name)];  // of the interface that exists
} kept;

const uint8_t *inner_address() {
    const tlsc_addr &assigned = tlsc_get_config()->inner_addr;
    return kept.has_address && assigned.kind != ADDR_IPV4 ? kept.address : assigned.ipv4;
}

}  // namespace

void tlsc_keep_tunnel_settings() {
    memcpy(kept.address, inner_address(), sizeof(kept.address));
    kept.has_address = true;

    tlsc_session *session = tlsc_get_sock()->sess;
    if (!session || !session->if_name || session->if_name == kept.if_name) return;
    tlsc_copy_text(kept.if_name, sizeof(kept.if_name), session->if_name);
    session->if_name = kept.if_name;
}

int32_t tlsc_tun_read_and_process(tlsc_sock *sock) {
    if (!sock || !sock->sess) {
        TLSC_ERROR("Null ptr received for sock/sock->sess");
        return 0;
    }

    uint8_t       packet[max_packet_size];
    const ssize_t count = read(sock->sess->tun_fd, packet, sizeof(packet));
    if (count < 1) {
        count_tun_error(tun_read_errors, errno);
        TLSC_ERROR("Could not read pkt from tun");
        return 0;
    }
    TLSC_DEBUG("read %d bytes from tun in read and process", static_cast<int>(count));
    tlsc_count(&tlsc_stats::tun_pkt_rx);
    clear_behind(packet, static_cast<size_t>(count));

    if (is_ipv4(packet)) exchange_address(packet, source_offset, inner_address());
    if (tlsc_dp_state == 0) {
        TLSC_WARNING("DP-STATE for client = 0... Not writing data-frame on ssl-socket");
        return 0;
    }
    return tlsc_write_cstp_data_pak(sock, packet, static_cast<int32_t>(count));
}

namespace {

// All ones when the text is no address. It is converted again only when it has changed.
in_addr_t management_address() {
    static char      converted[sizeof(tlsc_config::management_ip)];
    static in_addr_t address = INADDR_NONE;

    const char *text = tlsc_get_config()->management_ip;
    if (strcmp(text, converted) != 0) {
        tlsc_copy_text(converted, sizeof(converted), text);
        address = inet_addr(text);
    }
    return address;
}

}  // namespace

int32_t tlsc_tun_write(tlsc_sock *sock, uint8_t *buff, int32_t length) {
    if (!sock || !buff || !sock->sess) {
        TLSC_ERROR("Null ptr received for sock/buff/sock->sess");
        TLSC_ERROR("Processing CSTP frame failed due to error %s\n", tlsc_cstp_resp_name(TLSC_CSTP_NULL_PTR_RECVD));
        return 0;
    }
    if (length < 0 || length > static_cast<int32_t>(max_packet_size)) {
        TLSC_ERROR("Frame too big to write to tun intf for conn %p. len received = %d, Max-limit = %d",
                   static_cast<void *>(sock), length, static_cast<int>(max_packet_size));
        TLSC_ERROR("Processing CSTP frame failed due to error %s\n", tlsc_cstp_resp_name(TLSC_CSTP_FRAME_SIZE_TOO_BIG));
        return 0;
    }
    tlsc_log_hex(buff, length > 0 ? static_cast<size_t>(length) : 0);

    if (is_ipv4(buff)) {
        const in_addr_t management = management_address();
        exchange_address(buff, destination_offset, &management);
    }

    const ssize_t written = write(sock->sess->tun_fd, buff, static_cast<size_t>(length));
    if (written < 0) {
        count_tun_error(tun_write_errors, errno);
        TLSC_ERROR("Error writing data to tun interface for conn %p", static_cast<void *>(sock));
        TLSC_ERROR("Processing CSTP frame failed due to error %s\n", tlsc_cstp_resp_name(TLSC_CSTP_DATA_WRITE_FAILED));
        return 0;
    }
    tlsc_count(&tlsc_stats::tun_pkt_tx);
    TLSC_DEBUG("Successfully wrote %d bytes on TUN-interface(%d)", static_cast<int>(written), sock->sess->tun_fd);
    return static_cast<int32_t>(written);
}

// ==== 6 Commands =================================================================================================
// The mailbox: other threads write whole commands to the pipe and may set exit_client; nothing else of this file is
// touched from outside.

std::atomic<int32_t> exit_client{0};
std::atomic<int32_t> epoll_thread_exited{0};
std::atomic<int32_t> cli_pipe_rd_fd{-1};
std::atomic<int32_t> cli_pipe_wr_fd{-1};

namespace {

void change_log_level(int32_t level) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_handle_cli_cmds"};

    if (level == tlsc_log_level) {
        TLSC_INFO("Log level already same(%d)", level);
        return;
    }
    tlsc_log_level = level;
    TLSC_INFO("Log level changed to: %d", level);
}

void change_log_dest(int32_t dest) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_handle_cli_cmds"};

    if (dest == tlsc_log_dest) {
        TLSC_INFO("Log destination already same(%d)", dest);
        return;
    }
    tlsc_log_dest = dest;
    TLSC_INFO("Log destination changed to: %d", dest);
}

// Reads one command; what a short read did not fill is zero.
ssize_t read_command(tlsc_cli_cmd *cmd) {
    *cmd = {};
    return read(cli_pipe_rd_fd, cmd, sizeof(*cmd));
}

// Takes the address over. Returns 1, or 0 when it cannot be used (logged).
int32_t take_gateway_address(int32_t kind, const uint8_t *gw_sockaddr) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_handle_gw_ip_addr"};

    if (kind != ADDR_IPV4) {
        TLSC_ERROR("IPv6 ADDR not supported");
        return 0;
    }
    if (!gw_sockaddr) {
        TLSC_ERROR("Null ptr received for gw_sockaddr");
        return 0;
    }
    char text[addr_text_size];
    if (!inet_ntop(AF_INET, gw_sockaddr + gw_sockaddr_ipv4_off, text, sizeof(text))) {
        TLSC_ERROR("GW IP ADDR Conversion failed");
        return 0;
    }
    tlsc_copy_text(tlsc_get_config()->svr_addr_ipv4, addr_text_size, text);
    return 1;
}

}  // namespace

// By contract: an address that cannot be used reconnects too, to the one already held.
int32_t tlsc_handle_gw_ip_addr(int32_t kind, const uint8_t *gw_sockaddr) {
    const int32_t result = take_gateway_address(kind, gw_sockaddr);
    tlsc_start_rekey_proc(tlsc_get_sock());
    return result;
}

int32_t tlsc_handle_cli_cmds() {
    tlsc_cli_cmd  cmd;
    const ssize_t count = read_command(&cmd);
    if (count <= 0) return static_cast<int32_t>(count);

    switch (cmd.id) {
    case CLI_CMD_INVALID: TLSC_ERROR("Invalid command type received from CLI... Ignore!!"); break;
    case CLI_CMD_EXIT_CLIENT:
        TLSC_INFO("Exit cmd rcvd for child thread, set exit_client flag to true");
        exit_client = 1;
        break;
    case CLI_CMD_LOG_LEVEL: change_log_level(cmd.value); break;
    case CLI_CMD_LOG_DEST: change_log_dest(cmd.value); break;
    case CLI_CMD_GW_IP:
        TLSC_INFO("Received FQDN resolved GW IP, trying to connect");
        return tlsc_handle_gw_ip_addr(cmd.value, cmd.gw_sockaddr);
    default: TLSC_ERROR("Invalid value received for CLI-CMD: %d", cmd.id); break;
    }
    return static_cast<int32_t>(count);
}

void tlsc_clear_cli_cmds() {
    TLSC_INFO("Clearing the stale commands form CLI pipe, read fd:%d, write fd:%d", cli_pipe_rd_fd.load(),
              cli_pipe_wr_fd.load());
    tlsc_cli_cmd cmd;
    int          cleared = 0;
    while (read_command(&cmd) > 0) {
        TLSC_INFO("Clear CLI commands: message id read:%d", cmd.id);
        if (cmd.id == CLI_CMD_EXIT_CLIENT) tlsc_note_dropped_exit();
        ++cleared;
    }
    TLSC_INFO("Total number of stale commands cleared from CLI pipe:%d", cleared);
}

// ==== 7 Event loop ===============================================================================================
// The loop body is one line per event, the dispatch one line per descriptor.

namespace {

constexpr uint32_t error_events = EPOLLERR | EPOLLHUP | EPOLLRDHUP;

bool is_interface_gone;  // deleted from outside: the run ends early, the next one makes another

// ---- load -----------------------------------------------------------------------------------------------------------
// A packet that travels alone is sent at once. Now and then one is kept back until the loop has looked, without
// waiting, whether more events are there already: while they are, the records of the packets are collected and sent
// together when nothing more waits. Each look in vain doubles the number of packets before the next; behind a load the
// next packet is looked at.

constexpr unsigned first_look = 4;
constexpr unsigned last_look  = 1024;

struct {
    bool     is_on;                    // records are collected
    unsigned packets;                  // since the last look
    unsigned look_after = first_look;  // packets
} load;

bool has_sent_packet;  // in this pass

bool is_time_to_look() { return load.is_on || load.packets >= load.look_after; }

void note_look(bool found_more) {
    if (found_more || load.is_on) load.look_after = 1;
    else load.look_after = std::min(load.look_after * 2, last_look);
    load.is_on   = found_more;
    load.packets = 0;
}

// ---- traffic --------------------------------------------------------------------------------------------------------

void on_tun_event(tlsc_sock *sock, int32_t fd, uint32_t mask) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_start_epoll"};

    if (mask & error_events) {
        TLSC_ERROR("Error [%d] occured on TUN-Socket-fd(%d).. closing connection", static_cast<int>(mask), fd);
        tlsc_sock_error(TLSC_DOWN_SOCKET_ERROR);
        is_interface_gone = tlsc_tun_is_gone(sock->sess);
        return;
    }
    TLSC_DEBUG("Got data on Tun interface");
    if (tlsc_dp_state == 0) {
        TLSC_DEBUG("DP STATE DOWN");  // the packet stays queued and the event comes again
        return;
    }
    ++load.packets;
    tlsc_transport_collect(is_time_to_look());
    const int32_t result = tlsc_tun_read_and_process(sock);
    tlsc_transport_collect(false);
    has_sent_packet = true;
    if (!result) tlsc_sock_error(TLSC_DOWN_SSL_WRITE);
}

// One frame, of a session that is readable. A connection without a session fails to be read, and ends.
void read_frame(tlsc_sock *sock) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_start_epoll"};

    TLSC_DEBUG("Got data on SSL socket");
    tlsc_cstp_frame frame;
    tlsc_transport_read_whole_records(true);
    const int32_t result = tlsc_cstp_read_frame(sock, &frame);
    tlsc_transport_read_whole_records(false);
    if (result != TLSC_SSL_OK) {
        TLSC_ERROR("SSL returned error = %d, while trying to read data", result);
        if (result == TLSC_SSL_ERROR) tlsc_sock_error(TLSC_DOWN_SSL_READ);
        return;
    }

    // By contract: the processor is given nowhere to report to, so a bad frame does not end the connection.
    int32_t *const resp = nullptr;
    (void)tlsc_process_cstp_frame(sock, &frame, tlsc_epoll_fd, resp);
    if (resp && *resp != TLSC_CSTP_RESP_ERR_NONE) {
        TLSC_ERROR("Processing CSTP frame returned error %s\n", tlsc_cstp_resp_name(*resp));
        tlsc_sock_error(TLSC_DOWN_CSTP_RESPONSE);
    }
}

bool has_read_frames;  // in this pass

constexpr int frames_beside_others = 2;  // a pass, while other events wait: TCP answers two segments with one packet

// Alone, the frames of one buffer.
void read_frames(tlsc_sock *sock, bool alone) {
    has_read_frames = true;
    int count       = 0;
    do read_frame(sock);
    while ((alone || ++count < frames_beside_others) && exit_client != 1 && tlsc_transport_is_readable(sock->ssl));
}

void on_ssl_event(tlsc_sock *sock, int32_t fd, uint32_t mask) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_start_epoll"};

    if (mask & error_events) {
        TLSC_ERROR("Error [%d] occured on SSL-Socket-fd(%d).. closing connection", static_cast<int>(mask), fd);
        tlsc_sock_error(TLSC_DOWN_SOCKET_ERROR);
        return;
    }
    if (!sock->ssl || tlsc_transport_take_in(sock->ssl)) read_frames(sock, pass_count == 1);
}

void on_unknown_event(tlsc_fd_type type) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_start_epoll"};

    TLSC_ERROR("Epoll indicated event on an unknown socket with ltype = %d", type);
}

void handle_traffic(tlsc_sock *sock, int32_t fd, uint32_t mask) {
    const tlsc_fd_type type = tlsc_get_fd_type(fd, sock);
    switch (type) {
    case TLSC_FD_TUN: return on_tun_event(sock, fd, mask);
    case TLSC_FD_SSL: return on_ssl_event(sock, fd, mask);
    default: return on_unknown_event(type);
    }
}

void handle_event(tlsc_sock *sock, int32_t fd, uint32_t mask) {
    if (mask == 0) return on_unknown_event(TLSC_FD_UNKNOWN);  // closed earlier in this pass
    if (tlsc_handle_timer(sock, fd)) return;
    if (fd == cli_pipe_rd_fd) return static_cast<void>(tlsc_handle_cli_cmds());
    handle_traffic(sock, fd, mask);
}

// ---- set-up ---------------------------------------------------------------------------------------------------------

bool create_epoll() {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_start_epoll"};

    tlsc_epoll_fd = epoll_create1(0);
    if (tlsc_epoll_fd < 1) {
        TLSC_ERROR("Could not create epoll-fd, due to error %d", errno);
        return false;
    }
    (void)fcntl(tlsc_epoll_fd, F_SETFD, FD_CLOEXEC);  // not for the shell's children

    tlsc_epoll_events = static_cast<epoll_event *>(calloc(max_events, sizeof(epoll_event)));
    if (!tlsc_epoll_events) {
        TLSC_ERROR("Could not allocate memory for epoll-events block");
        close(tlsc_epoll_fd);
        tlsc_epoll_fd = -1;
        return false;
    }
    TLSC_INFO("Created epoll-fd(%d) to handle maximum %d events", tlsc_epoll_fd, max_events);
    return true;
}

void release_epoll() {
    free(tlsc_epoll_events);
    tlsc_epoll_events = nullptr;
    close(tlsc_epoll_fd);
    tlsc_epoll_fd = -1;
}

// Without a pipe the thread runs without commands.
void register_command_pipe() {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_start_epoll"};

    const int32_t fd = cli_pipe_rd_fd;
    if (fd <= 0) return;
    tlsc_clear_cli_cmds();
    if (!tlsc_add_fd_to_epoll(tlsc_epoll_fd, fd))
        TLSC_ERROR("Could not add pipe-fd(%d) to epoll-fd(%d)", fd, tlsc_epoll_fd);
    else TLSC_DEBUG("Pipe-fd(%d) added to epoll-fd(%d)", fd, tlsc_epoll_fd);
}

bool open_tun(tlsc_sock *sock) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_start_epoll"};

    const int32_t fd = open("/dev/net/tun", O_RDWR);
    if (fd < 0) {
        TLSC_ERROR("Error cloning tun interface");
        return false;
    }
    (void)fcntl(fd, F_SETFD, FD_CLOEXEC);

    tlsc_attach_session(sock);
    if (sock->sess) {
        sock->sess->tun_fd    = fd;
        sock->sess->tun_state = 0;
    }
    if (!tlsc_create_tun(sock->sess)) {
        TLSC_ERROR("Creation of tun-intf failed");
        return false;
    }
    return true;
}

bool register_tun(const tlsc_session *sess) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_start_epoll"};

    epoll_event event{};
    event.events  = EPOLLIN;
    event.data.fd = sess->tun_fd;
    int ret       = epoll_ctl(tlsc_epoll_fd, EPOLL_CTL_ADD, sess->tun_fd, &event);
    if (ret != 0 && errno == EEXIST) {
        TLSC_WARNING("Intf FD already exists in the epoll.. updating event..");
        ret = epoll_ctl(tlsc_epoll_fd, EPOLL_CTL_MOD, sess->tun_fd, &event);
    }
    if (ret != 0) {
        TLSC_ERROR("Could not add intf(%s) to epoll. ErrorNo = %d", tlsc_text_or_null(sess->if_name), errno);
        return false;
    }
    TLSC_WARNING("Added interface %s to epoll list", tlsc_text_or_null(sess->if_name));
    return true;
}

// A failed connection leaves only the backoff timer behind; the loop starts all the same.
bool connect_and_register(tlsc_sock *sock) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_start_epoll"};

    if (!tlsc_create_tcp_conn()) {
        TLSC_ERROR("TCP Connection failed");
        tlsc_sock_error(TLSC_DOWN_TCP_CONNECT);
    }
    if (sock->sockfd <= 0) return true;
    if (!tlsc_add_fd_to_epoll(tlsc_epoll_fd, sock->sockfd)) {
        TLSC_ERROR("Could not add ipv4 to epoll");
        release_epoll();
        return false;
    }
    TLSC_INFO("Successfully added Client-socket-fd(%d) to epoll-fd", sock->sockfd);
    return true;
}

// By contract: what a failed set-up has opened stays open; the next start makes its own.
bool set_up_tunnel(tlsc_sock *sock) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_start_epoll"};

    if (!create_epoll()) return false;
    register_command_pipe();
    tlsc_transport_cut_waits(false);  // as with stale commands: who asked for it meant an earlier run
    if (!sock) {
        TLSC_ERROR("Could not get client-socket ptr");
        return false;
    }
    return open_tun(sock) && register_tun(sock->sess) && connect_and_register(sock);
}

// By contract: a failed set-up leaves open what it has opened, an orderly end keeps its TLS session. The next run
// releases it.
void release_leftovers(tlsc_sock *sock) {
    tlsc_abandon_timers();
    if (tlsc_epoll_fd > 0 || tlsc_epoll_events) release_epoll();
    pass_count = 0;
    pass_next  = 0;
    if (sock->sess && sock->sess->tun_fd > 0) {
        close(sock->sess->tun_fd);
        sock->sess->tun_fd = -1;
    }
    if (sock->sockfd > 0) tlsc_close_transport(sock->sockfd);
    SSL_free(sock->ssl);
    sock->ssl    = nullptr;
    sock->ssl_up = 0;
    sock->sockfd = -1;
    sock->ssl_fd = -1;
}

// ---- loop and end ---------------------------------------------------------------------------------------------------

constexpr int     look_interval_ms  = 10000;  // between two looks at a tunnel without a timer
constexpr int64_t restart_seconds   = 10;     // without a connection and a timer, until the next attempt is prepared
constexpr int64_t unwatched_seconds = 60;     // of a connection without a timer, until it is given up

int64_t timeless_since;  // second of the monotonic clock in which no timer was found running; 0 while one runs

int64_t monotonic_seconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::max<int64_t>(now.tv_sec, 1);
}

// Every way back from a failure leads over a timer. One that could not be started, or a response that was rejected,
// leaves a tunnel that nothing would ever wake.
void look_after_timeless_tunnel(const tlsc_sock *sock) {
    if (tlsc_is_any_timer_running()) {
        timeless_since = 0;
        return;
    }
    const int64_t now = monotonic_seconds();
    if (timeless_since == 0) timeless_since = now;
    if (now - timeless_since < (sock->sockfd > 0 ? unwatched_seconds : restart_seconds)) return;
    timeless_since = 0;
    if (sock->sockfd > 0) tlsc_sock_error(TLSC_DOWN_CSTP_TIMEOUT);
    else (void)tlsc_start_timer(&tlsc_timers.backoff, 1);
}

int wait_for_events(int timeout_ms) {
    tlsc_turn pause(TLSC_AT_SAFEPOINT);
    return epoll_wait(tlsc_epoll_fd, tlsc_epoll_events, max_events, timeout_ms);
}

// What waits already. Others come in between all the same.
int look_for_events() {
    if (tlsc_is_awaited()) tlsc_turn pause(TLSC_AT_SAFEPOINT);
    return epoll_wait(tlsc_epoll_fd, tlsc_epoll_events, max_events, 0);
}

// The next events: without waiting while records wait to be read or sent. Below 1 when there are none.
int next_events(tlsc_sock *sock) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_start_epoll"};

    if (is_time_to_look() || tlsc_transport_is_readable(sock->ssl)) {
        const int count = look_for_events();
        note_look(count > 0);
        if (count > 0) return count;
        if (!send_collected_records()) tlsc_sock_error(TLSC_DOWN_SSL_WRITE);
        if (tlsc_transport_is_readable(sock->ssl)) return 0;
    }
    const bool is_timeless = !tlsc_is_any_timer_running();
    const int  count       = wait_for_events(is_timeless ? look_interval_ms : -1);
    if (count < 0 || (count == 0 && !is_timeless)) TLSC_ERROR("EPOLL Wait timed out");
    return count;
}

void handle_one_pass(tlsc_sock *sock) {
    follow_log_level(sock->ssl);
    has_read_frames = false;
    has_sent_packet = false;
    pass_count      = next_events(sock);
    pass_next       = 0;
    while (pass_next < pass_count) {
        const epoll_event event = tlsc_epoll_events[pass_next++];
        handle_event(sock, event.data.fd, event.events);
    }
    if (!has_read_frames && tlsc_transport_is_readable(sock->ssl)) read_frames(sock, pass_count == 0);
    // Packets wait for packets only, not for a gateway that never pauses.
    if (!has_sent_packet && !send_collected_records()) tlsc_sock_error(TLSC_DOWN_SSL_WRITE);
    pass_count = 0;
    look_after_timeless_tunnel(sock);
}

// The TLS session is not released here: the process's clean-up or the next connection does it.
void end_tunnel(tlsc_sock *sock) {
    (void)tlsc_transport_flush(false);
    tlsc_tun_delete(sock->sess, TLSC_DOWN_NO_ERROR);
    tlsc_end_timers();
    if (sock->sockfd > 0) {
        tlsc_take_back_old_transport(sock);
        tlsc_close_transport(sock->sockfd);
        sock->sockfd = -1;
        sock->ssl_fd = -1;
    }
    release_epoll();
    epoll_thread_exited = 1;
}

// A failed change of its state takes the interface's name away: it cannot be used until it is created again.
bool is_interface_usable(const tlsc_sock *sock) { return !is_interface_gone && (!sock->sess || sock->sess->if_name); }

// The next run makes another interface.
void end_early(tlsc_sock *sock) {
    if (sock->sockfd > 0) tlsc_sock_error(TLSC_DOWN_CSTP_RESPONSE);
    tlsc_tun_delete(sock->sess, TLSC_DOWN_NO_ERROR);
}

}  // namespace

void *tlsc_start_epoll(void *) {
    (void)signal(SIGPIPE, SIG_IGN);  // a peer that went away is an error of the write
    tlsc_turn  turn(TLSC_AT_WORK);
    tlsc_sock *sock = tlsc_get_sock();

    TLSC_INFO("In epoll thread");
    kept.has_address = false;
    release_leftovers(sock);
    if (!set_up_tunnel(sock)) return nullptr;
    exit_client       = 0;
    is_interface_gone = false;
    timeless_since    = 0;
    load              = {};
    do handle_one_pass(sock);
    while (exit_client != 1 && is_interface_usable(sock));

    if (exit_client != 1) {
        end_early(sock);
        return nullptr;
    }
    end_tunnel(sock);
    TLSC_WARNING("TLS Client: epoll thread exiting normally");
    TLSC_WARNING("TLS Client: epoll thread exiting");
    return nullptr;
}

void tlsc_release_run() {
    tlsc_sock *sock = tlsc_get_sock();

    if (connecting_fd > 0 && connecting_fd != sock->sockfd) close(connecting_fd);
    connecting_fd = -1;
    sock->sockfd  = -1;  // closed with its TLS session
    release_leftovers(sock);
    tlsc_abandon_old_transport();
    tlsc_end_timers();
}
