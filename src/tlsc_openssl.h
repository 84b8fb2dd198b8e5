// The only place that knows two series of OpenSSL: include this instead of the OpenSSL headers.
// The daemon is written for the 1.0 series; where 3.0 differs, the functions below make it behave alike.
#pragma once

#ifndef OPENSSL_SUPPRESS_DEPRECATED
#define OPENSSL_SUPPRESS_DEPRECATED 1  // the engine, method and thread-state calls are deprecated in 3.0
#endif

#include <openssl/opensslv.h>

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/engine.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#define TLSC_OPENSSL_1_0 (OPENSSL_VERSION_NUMBER < 0x10100000L)

// Keeps 3.0 from reading openssl.cnf and the environment, and from cleaning up behind a thread that still connects
// while the process ends; must come before any other call.
inline void tlsc_ossl_early_init() {
#if !TLSC_OPENSSL_1_0
    OPENSSL_init_ssl(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_ATEXIT, nullptr);
#endif
}

// SSL_OP_ALL of the series in use, and the defaults that the 1.0 series has: legacy servers allowed, no automatic
// retry of reads.
inline void tlsc_ossl_set_ctx_options(SSL_CTX *ctx) {
#if TLSC_OPENSSL_1_0
    SSL_CTX_set_options(ctx, SSL_OP_ALL);
#else
    SSL_CTX_set_options(ctx, SSL_OP_ALL | SSL_OP_LEGACY_SERVER_CONNECT);
    SSL_CTX_clear_mode(ctx, SSL_MODE_AUTO_RETRY);
#endif
}

// SSL_get_error, with 3.0's "unexpected eof" given as SSL_ERROR_SYSCALL, as the 1.0 series calls a bare FIN.
inline int tlsc_ossl_get_error(const SSL *ssl, int ret) {
    int error = SSL_get_error(ssl, ret);
#if !TLSC_OPENSSL_1_0
    if (error == SSL_ERROR_SSL && ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING) {
        ERR_clear_error();
        error = SSL_ERROR_SYSCALL;
    }
#endif
    return error;
}

using tlsc_ossl_msg_cb = void (*)(int, int, int, const void *, size_t, SSL *, void *);

// The message callback to install: it hears of everything as the 1.0 series tells it. 3.0 names the session's version
// for a record header (content type 256), where the 1.0 series gives 0.
template <tlsc_ossl_msg_cb callback>
void tlsc_ossl_traced(int write_p, int version, int content_type, const void *buf, size_t len, SSL *ssl, void *arg) {
#if !TLSC_OPENSSL_1_0
    if (content_type == SSL3_RT_HEADER) version = 0;
#endif
    callback(write_p, version, content_type, buf, len, ssl, arg);
}

// Forbids renegotiation on a server-side connection.
inline void tlsc_ossl_forbid_renegotiation(const SSL *ssl) {
#if TLSC_OPENSSL_1_0
    if (ssl->server && ssl->s3 != nullptr) ssl->s3->flags |= SSL3_FLAGS_NO_RENEGOTIATE_CIPHERS;
#else
    if (SSL_is_server(ssl)) SSL_set_options(const_cast<SSL *>(ssl), SSL_OP_NO_RENEGOTIATION);
#endif
}

// What a BIO of our own does: see BIO_meth_new(3).
struct tlsc_ossl_bio_calls {
    const char *name;
    int (*write)(BIO *, const char *, int);
    int (*read)(BIO *, char *, int);
    long (*control)(BIO *, int, long, void *);
    int (*create)(BIO *);
    int (*destroy)(BIO *);
};

#if TLSC_OPENSSL_1_0
inline void *tlsc_ossl_bio_data(BIO *bio) { return bio->ptr; }
inline void  tlsc_ossl_bio_set_data(BIO *bio, void *data) { bio->ptr = data; }
inline int   tlsc_ossl_bio_close(BIO *bio) { return bio->shutdown; }
inline void  tlsc_ossl_bio_set_close(BIO *bio, int flag) { bio->shutdown = flag; }
inline void  tlsc_ossl_bio_set_init(BIO *bio) { bio->init = 1; }
#else
inline void *tlsc_ossl_bio_data(BIO *bio) { return BIO_get_data(bio); }
inline void tlsc_ossl_bio_set_data(BIO *bio, void *data) { BIO_set_data(bio, data); }
inline int tlsc_ossl_bio_close(BIO *bio) { return BIO_get_shutdown(bio); }
inline void tlsc_ossl_bio_set_close(BIO *bio, int flag) { BIO_set_shutdown(bio, flag); }
inline void tlsc_ossl_bio_set_init(BIO *bio) { BIO_set_init(bio, 1); }
#endif

// The method of a source and sink with a descriptor, which SSL_get_fd finds; null when out of memory.
inline BIO_METHOD *tlsc_ossl_descriptor_method(const tlsc_ossl_bio_calls &calls) {
#if TLSC_OPENSSL_1_0
    constexpr int     own_type = 0x70;  // the series itself goes up to 24
    static BIO_METHOD method{own_type | BIO_TYPE_DESCRIPTOR | BIO_TYPE_SOURCE_SINK,
                             calls.name,
                             calls.write,
                             calls.read,
                             nullptr,
                             nullptr,
                             calls.control,
                             calls.create,
                             calls.destroy,
                             nullptr};
    return &method;
#else
    BIO_METHOD *method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_DESCRIPTOR | BIO_TYPE_SOURCE_SINK, calls.name);
    if (!method) return nullptr;
    BIO_meth_set_write(method, calls.write);
    BIO_meth_set_read(method, calls.read);
    BIO_meth_set_ctrl(method, calls.control);
    BIO_meth_set_create(method, calls.create);
    BIO_meth_set_destroy(method, calls.destroy);
    return method;
#endif
}

// A BIO with these calls, which are the same each time; null when out of memory.
inline BIO *tlsc_ossl_new_descriptor_bio(const tlsc_ossl_bio_calls &calls) {
    static BIO_METHOD *method;  // made once, kept for the process's life
    if (!method) method = tlsc_ossl_descriptor_method(calls);
    return method ? BIO_new(method) : nullptr;
}
