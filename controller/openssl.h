// The machine's OpenSSL, of whatever series, opened when it is needed only: the agent that waits for months does not
// carry it.
#pragma once

#include <string>

namespace wlcctl {

enum class cipher_verdict {
    usable,
    unusable,     // OpenSSL refuses the list
    without_psk,  // it is accepted and holds no cipher for a pre-shared key
    unknown       // there is no OpenSSL to ask
};

// Asks OpenSSL what it thinks of a cipher list.
cipher_verdict judge_ciphers(const std::string &list);

// What a handshake of our own with the gateway said.
struct handshake_result {
    bool        is_done = false;
    bool        is_late = false;  // nothing came for `patience` seconds
    std::string cipher;           // when done
    std::string error;            // OpenSSL's text, or why it could not be tried
};

// Connects, performs a TLS 1.2 handshake with identity and key, and leaves. Blocks for at most `patience` seconds a
// step.
handshake_result try_handshake(int connected_fd, const std::string &ciphers, const std::string &identity,
                               const std::string &key, double patience);

// The library's own version text, empty if there is none.
std::string openssl_version();

}  // namespace wlcctl
