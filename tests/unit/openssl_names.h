// What the tests call of OpenSSL goes by its names in 3.0; the 1.0 series gets them here.
#pragma once

#include "tlsc_openssl.h"

#if TLSC_OPENSSL_1_0
inline const int openssl_is_ready = SSL_library_init();  // 3.0 does it by itself

inline const SSL_METHOD *TLS_server_method() { return SSLv23_server_method(); }
inline const SSL_METHOD *TLS_client_method() { return SSLv23_client_method(); }

// TLS 1.2 is the highest version that the series has.
inline void SSL_CTX_set_max_proto_version(SSL_CTX *ctx, int version) {
    if (version < TLS1_2_VERSION) SSL_CTX_set_options(ctx, SSL_OP_NO_TLSv1_2);
    if (version < TLS1_1_VERSION) SSL_CTX_set_options(ctx, SSL_OP_NO_TLSv1_1);
}

inline void X509_STORE_CTX_set_current_cert(X509_STORE_CTX *ctx, X509 *cert) { ctx->current_cert = cert; }
#endif
