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

// The message callback to install: it hears of everything as the 1.0 series tells it. 3.0 names the session's version for
// a record header (content type 256), where the 1.0 series gives 0.
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
