#include "tls.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "errors.h"

namespace gw {

namespace {

constexpr const char *psk_ciphers         = "PSK-AES256-GCM-SHA384:PSK-AES256-CBC-SHA:PSK:!aRSA:!eNULL";
constexpr const char *certificate_ciphers = "HIGH:!aNULL:!eNULL:!PSK";

std::string default_ciphers(const tls_options &options) {
    std::string list = options.psk_file.empty() ? "" : psk_ciphers;
    if (options.cert.empty()) return list;
    return list.empty() ? certificate_ciphers : list + ":HIGH:!aNULL";
}

[[noreturn]] void fail(const std::string &what) { throw usage_error(what + ": " + take_openssl_error()); }

void require_readable(const char *what, const std::string &path) {
    if (access(path.c_str(), R_OK) != 0)
        throw usage_error(std::string("cannot read the ") + what + " " + path + ": " + strerror(errno));
}

}  // namespace

std::string take_openssl_error() {
    unsigned long error  = ERR_peek_last_error();
    const char   *reason = error ? ERR_reason_error_string(error) : nullptr;
    std::string   text   = reason ? reason : "unknown";
    ERR_clear_error();
    return text;
}

tls_context::tls_context(const tls_options &options) : context_(SSL_CTX_new(TLS_server_method())) {
    if (!context_) fail("cannot create a TLS context");
    SSL_CTX *context = context_.get();
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_mode(context, SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_dh_auto(context, 1);
    static constexpr unsigned char session_context[] = "tlsc-gateway";
    SSL_CTX_set_session_id_context(context, session_context, sizeof session_context - 1);

    if (!options.psk_file.empty()) use_psk(options);
    if (!options.cert.empty()) use_certificate(options);
    std::string list = options.ciphers.empty() ? default_ciphers(options) : options.ciphers;
    if (SSL_CTX_set_cipher_list(context, list.c_str()) != 1) fail("cipher list '" + list + "'");
    if (!options.keylog.empty()) write_keys_to(options.keylog);
}

tls_context::~tls_context() {
    if (keylog_ >= 0) close(keylog_);
}

void tls_context::use_psk(const tls_options &options) {
    psks_ = read_psk_file(options.psk_file);
    SSL_CTX_set_app_data(context_.get(), this);
    SSL_CTX_set_psk_server_callback(context_.get(), find_psk);
    if (options.psk_hint.empty()) return;
    if (SSL_CTX_use_psk_identity_hint(context_.get(), options.psk_hint.c_str()) != 1) fail("PSK identity hint");
}

size_t tls_context::read_keys_again(const tls_options &options) {
    if (options.psk_file.empty()) return 0;
    psk_table fresh = read_psk_file(options.psk_file);
    psks_.swap(fresh);
    return psks_.size();
}

unsigned tls_context::find_psk(SSL *ssl, const char *identity, unsigned char *key, unsigned limit) {
    auto *self = static_cast<tls_context *>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
    if (!identity) return 0;
    auto found = self->psks_.find(identity);
    if (found == self->psks_.end() || found->second.size() > limit) return 0;
    const std::string &bytes = found->second;
    std::copy(bytes.begin(), bytes.end(), key);
    return static_cast<unsigned>(bytes.size());
}

void tls_context::use_certificate(const tls_options &options) {
    SSL_CTX *context = context_.get();
    require_readable("certificate", options.cert);
    require_readable("private key", options.key);
    require_private("private key", options.key);
    if (SSL_CTX_use_certificate_chain_file(context, options.cert.c_str()) != 1) fail("certificate " + options.cert);
    if (SSL_CTX_use_PrivateKey_file(context, options.key.c_str(), SSL_FILETYPE_PEM) != 1)
        fail("private key " + options.key);
    if (SSL_CTX_check_private_key(context) != 1) fail("private key " + options.key + " does not match the certificate");
    if (!options.client_ca.empty()) require_client_certificate(options);
}

void tls_context::require_client_certificate(const tls_options &options) {
    SSL_CTX *context = context_.get();
    require_readable("client CA", options.client_ca);
    if (SSL_CTX_load_verify_locations(context, options.client_ca.c_str(), nullptr) != 1)
        fail("client CA " + options.client_ca);
    STACK_OF(X509_NAME) *names = SSL_load_client_CA_file(options.client_ca.c_str());
    if (!names) fail("client CA " + options.client_ca);
    SSL_CTX_set_client_CA_list(context, names);  // takes the list over
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    if (options.crl.empty()) return;

    require_readable("CRL", options.crl);
    X509_STORE  *store  = SSL_CTX_get_cert_store(context);
    X509_LOOKUP *lookup = X509_STORE_add_lookup(store, X509_LOOKUP_file());
    if (!lookup || X509_load_crl_file(lookup, options.crl.c_str(), X509_FILETYPE_PEM) < 1) fail("CRL " + options.crl);
    X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK);
}

void tls_context::write_keys_to(const std::string &path) {
    keylog_ = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (keylog_ < 0) throw usage_error("cannot write the key log " + path + ": " + strerror(errno));
    SSL_CTX_set_app_data(context_.get(), this);
    SSL_CTX_set_keylog_callback(context_.get(), write_key_line);
}

void tls_context::write_key_line(const SSL *ssl, const char *line) {
    auto       *self = static_cast<tls_context *>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
    std::string text = std::string(line) + "\n";
    (void)!write(self->keylog_, text.data(), text.size());  // a full disk must not end the tunnel
}

std::string peer_identity(SSL *ssl) {
    if (const char *identity = SSL_get_psk_identity(ssl)) return identity;
    X509 *certificate = SSL_get0_peer_certificate(ssl);
    if (!certificate) return "";
    X509_NAME *subject   = X509_get_subject_name(certificate);
    char       text[256] = "";
    if (X509_NAME_get_text_by_NID(subject, NID_commonName, text, sizeof text) > 0) return text;
    X509_NAME_oneline(subject, text, sizeof text);
    return text;
}

}  // namespace gw
