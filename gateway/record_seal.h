#pragma once

#include <openssl/ssl.h>

#include "text.h"

namespace gw {

// The most plaintext that a crafted record may hold: above the 16384 that TLS allows, so that a client can be shown
// too much.
constexpr size_t crafted_record_limit = 60000;

// True when the connection's cipher is covered: AES-GCM, AES-CBC with either order of MAC and cipher,
// ChaCha20-Poly1305.
bool can_seal_record(SSL *ssl);

// Encrypts one TLS 1.2 record by hand, for what OpenSSL does not send: records without content, of more than 16384
// bytes, of another content type. The record takes the place of `model`, a record that OpenSSL has just made and that
// is not sent: it has its sequence number, and its explicit nonce (RFC 5288) is used again since the model never
// leaves the process.
//
// ssl       connection whose handshake is over
// type      content type (RFC 5246, 6.2.1)
// plain     content, at most crafted_record_limit bytes
// sequence  number of the record since the gateway's ChangeCipherSpec, 0 being its Finished
// model     the replaced record, header included, made from one byte of application data
//
// Throws std::runtime_error when the libraries refuse, or for a cipher that is not covered.
byte_vector seal_record(SSL *ssl, uint8_t type, byte_view plain, uint64_t sequence, byte_view model);

}  // namespace gw
