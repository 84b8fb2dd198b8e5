#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "psk_file.h"

namespace gw {

struct tls_options {
    std::string psk_file{};
    std::string psk_hint{};
    std::string cert{};
    std::string key{};
    std::string client_ca{};
    std::string crl{};
    std::string ciphers{};  // empty: chosen by what is configured
    std::string keylog{};
};

// The TLS 1.2 server context from which every connection is made.
class tls_context {
public:
    explicit tls_context(const tls_options &options);  // throws usage_error that names the file or list
    ~tls_context();
    tls_context(const tls_context &)            = delete;
    tls_context &operator=(const tls_context &) = delete;

    // Reads the PSK file once more; handshakes to come use what it holds, live connections stay. Returns the number of
    // identities. Throws usage_error, and the old keys stay.
    size_t read_keys_again(const tls_options &options);

    SSL_CTX *get() const { return context_.get(); }

private:
    struct deleter {
        void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
    };

    void            use_psk(const tls_options &options);
    void            use_certificate(const tls_options &options);
    void            require_client_certificate(const tls_options &options);
    void            write_keys_to(const std::string &path);
    static unsigned find_psk(SSL *ssl, const char *identity, unsigned char *key, unsigned limit);
    static void     write_key_line(const SSL *ssl, const char *line);

    std::unique_ptr<SSL_CTX, deleter> context_;
    psk_table                         psks_;
    int                               keylog_ = -1;
};

// Who the peer is: the PSK identity, or the certificate's subject (its common name if it has one), or "".
std::string peer_identity(SSL *ssl);

// The reason of the newest entry of OpenSSL's error queue, "unknown" if there is none; empties the queue.
std::string take_openssl_error();

}  // namespace gw
