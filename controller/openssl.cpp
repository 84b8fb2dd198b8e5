#include "openssl.h"

#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>

#include <algorithm>

namespace wlcctl {

namespace {

// The handful of functions that all series have under the same name and with the same arguments.
struct library {
    void *ssl = nullptr, *crypto = nullptr;

    library() {
        for (const char *version : {".so.3", ".so.1.1", ".so.1.0.2", ".so.1.0.0", ".so"}) {
            ssl    = dlopen((std::string("libssl") + version).c_str(), RTLD_NOW | RTLD_LOCAL);
            crypto = ssl ? dlopen((std::string("libcrypto") + version).c_str(), RTLD_NOW | RTLD_LOCAL) : nullptr;
            if (crypto) break;
        }
        if (auto init = find<int (*)()>(ssl, "SSL_library_init"); init) init();  // needed by the 1.0 series, gone later
        if (auto load = find<void (*)()>(ssl, "SSL_load_error_strings"); load) load();
    }
    template <class F>
    static F find(void *where, const char *name) {
        return where ? reinterpret_cast<F>(dlsym(where, name)) : nullptr;
    }
    template <class F>
    F ssl_function(const char *name) const {
        return find<F>(ssl, name);
    }
    template <class F>
    F crypto_function(const char *name) const {
        return find<F>(crypto, name);
    }
    // A TLS 1.2 context; null if there is none.
    void *new_context() const {
        auto method  = ssl_function<const void *(*)()>("TLSv1_2_client_method");
        auto context = ssl_function<void *(*)(const void *)>("SSL_CTX_new");
        return crypto && method && context ? context(method()) : nullptr;
    }
    void free_context(void *context) const { ssl_function<void (*)(void *)>("SSL_CTX_free")(context); }
};

const library &openssl() {
    static library loaded;
    return loaded;
}

bool set_ciphers(void *context, const std::string &list) {
    return openssl().ssl_function<int (*)(void *, const char *)>("SSL_CTX_set_cipher_list")(context, list.c_str()) == 1;
}

bool has_psk_cipher(void *context) {
    auto *ssl      = openssl().ssl_function<void *(*)(void *)>("SSL_new")(context);
    auto  name     = openssl().ssl_function<const char *(*)(const void *, int)>("SSL_get_cipher_list");
    bool  is_found = false;
    for (int i = 0; ssl && name(ssl, i); i++) is_found = is_found || strstr(name(ssl, i), "PSK");
    if (ssl) openssl().ssl_function<void (*)(void *)>("SSL_free")(ssl);
    return is_found;
}

// What the callback gives: it has no argument for it.
std::string offered_identity, offered_key;

unsigned give_key(void *, const char *, char *identity, unsigned identity_size, unsigned char *key, unsigned key_size) {
    if (offered_identity.size() + 1 > identity_size || offered_key.size() > key_size) return 0;
    memcpy(identity, offered_identity.c_str(), offered_identity.size() + 1);
    std::copy(offered_key.begin(), offered_key.end(), key);
    return static_cast<unsigned>(offered_key.size());
}

std::string error_text() {
    auto          next = openssl().crypto_function<unsigned long (*)()>("ERR_get_error");
    auto          text = openssl().crypto_function<const char *(*)(unsigned long)>("ERR_reason_error_string");
    unsigned long code = next ? next() : 0;
    const char   *what = code && text ? text(code) : nullptr;
    return what ? what : "the gateway closed the connection";
}

// SSL_connect on a non-blocking socket, step by step.
void connect_in_steps(void *ssl, int fd, double patience, handshake_result &result) {
    constexpr int want_read = 2, want_write = 3;
    auto          connect = openssl().ssl_function<int (*)(void *)>("SSL_connect");
    auto          error   = openssl().ssl_function<int (*)(const void *, int)>("SSL_get_error");
    for (;;) {
        int done = connect(ssl);
        if (done == 1) break;
        int why = error(ssl, done);
        if (why != want_read && why != want_write) {
            result.error = error_text();
            return;
        }
        pollfd state = {fd, static_cast<short>(why == want_read ? POLLIN : POLLOUT), 0};
        if (poll(&state, 1, static_cast<int>(patience * 1000)) > 0) continue;
        result.is_late = true;
        result.error   = "the gateway says nothing";
        return;
    }
    result.is_done = true;
    auto current   = openssl().ssl_function<const void *(*)(const void *)>("SSL_get_current_cipher");
    auto name      = openssl().ssl_function<const char *(*)(const void *)>("SSL_CIPHER_get_name");
    result.cipher  = name(current(ssl));
}

}  // namespace

cipher_verdict judge_ciphers(const std::string &list) {
    void *context = openssl().new_context();
    if (!context) return cipher_verdict::unknown;
    cipher_verdict verdict = !set_ciphers(context, list) ? cipher_verdict::unusable
                             : !has_psk_cipher(context)  ? cipher_verdict::without_psk
                                                         : cipher_verdict::usable;
    openssl().free_context(context);
    return verdict;
}

handshake_result try_handshake(int connected_fd, const std::string &ciphers, const std::string &identity,
                               const std::string &key, double patience) {
    handshake_result result;
    void            *context = openssl().new_context();
    result.error             = "there is no OpenSSL on this machine";
    if (!context) return result;
    result.error     = "the cipher list is unusable";
    offered_identity = identity;
    offered_key      = key;
    if (set_ciphers(context, ciphers)) {
        result.error.clear();
        fcntl(connected_fd, F_SETFL, fcntl(connected_fd, F_GETFL) | O_NONBLOCK);
        openssl().ssl_function<void (*)(void *, decltype(&give_key))>("SSL_CTX_set_psk_client_callback")(context,
                                                                                                         give_key);
        void *ssl = openssl().ssl_function<void *(*)(void *)>("SSL_new")(context);
        openssl().ssl_function<int (*)(void *, int)>("SSL_set_fd")(ssl, connected_fd);
        connect_in_steps(ssl, connected_fd, patience, result);
        if (result.is_done) openssl().ssl_function<int (*)(void *)>("SSL_shutdown")(ssl);
        openssl().ssl_function<void (*)(void *)>("SSL_free")(ssl);
    }
    openssl().free_context(context);
    std::fill(offered_key.begin(), offered_key.end(), '\0');
    return result;
}

std::string openssl_version() {
    auto text = openssl().crypto_function<const char *(*)(int)>("OpenSSL_version");
    if (!text) text = openssl().crypto_function<const char *(*)(int)>("SSLeay_version");
    return text ? text(0) : "";
}

}  // namespace wlcctl
