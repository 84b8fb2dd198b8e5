#include "record_seal.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/kdf.h>
#include <openssl/params.h>
#include <openssl/rand.h>

#include <cstring>
#include <memory>
#include <stdexcept>

namespace gw {

// Contents: 1 key block  2 authenticated ciphers  3 CBC with HMAC  4 the choice between them

namespace {

constexpr size_t record_header_size  = 5;
constexpr size_t tag_size            = 16;  // GCM and Poly1305
constexpr size_t explicit_nonce_size = 8;   // GCM
constexpr size_t block_size          = 16;  // AES-CBC

void check(bool good, const char *what) {
    if (!good) throw std::runtime_error(std::string("cannot craft a record: ") + what);
}

void append(byte_vector &to, byte_view bytes) { to.insert(to.end(), bytes.begin(), bytes.end()); }

void append_u16(byte_vector &to, size_t value) {
    to.push_back(static_cast<uint8_t>(value >> 8));
    to.push_back(static_cast<uint8_t>(value));
}

// ---- 1 Key block ----------------------------------------------------------------------------------------------------
// RFC 5246, 6.3. The server's halves are what the gateway writes with.

struct write_keys {
    byte_vector mac, key, iv;
};

enum class construction_kind {
    none,
    gcm,
    chacha,
    cbc
};

struct cipher_shape {
    construction_kind construction;
    const EVP_CIPHER *cipher;
    const EVP_MD     *mac;      // null for authenticated ciphers
    size_t            iv_size;  // bytes of the key block, not of the cipher
};

byte_vector prf(const EVP_MD *digest, byte_view secret, std::string_view label, byte_view seed, size_t size) {
    std::unique_ptr<EVP_KDF, void (*)(EVP_KDF *)> kdf(EVP_KDF_fetch(nullptr, "TLS1-PRF", nullptr), EVP_KDF_free);
    check(kdf != nullptr, "no TLS 1.2 PRF");
    std::unique_ptr<EVP_KDF_CTX, void (*)(EVP_KDF_CTX *)> context(EVP_KDF_CTX_new(kdf.get()), EVP_KDF_CTX_free);
    byte_vector                                           full_seed(label.begin(), label.end());
    append(full_seed, seed);
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, const_cast<char *>(EVP_MD_get0_name(digest)), 0),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SECRET, const_cast<uint8_t *>(secret.data()), secret.size()),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SEED, full_seed.data(), full_seed.size()),
        OSSL_PARAM_construct_end(),
    };
    byte_vector out(size);
    check(EVP_KDF_derive(context.get(), out.data(), out.size(), params) > 0, "key derivation failed");
    return out;
}

write_keys derive_write_keys(SSL *ssl, const cipher_shape &shape) {
    uint8_t     master[SSL_MAX_MASTER_KEY_LENGTH];
    size_t      master_size = SSL_SESSION_get_master_key(SSL_get_session(ssl), master, sizeof master);
    byte_vector randoms(2 * SSL3_RANDOM_SIZE);
    SSL_get_server_random(ssl, randoms.data(), SSL3_RANDOM_SIZE);
    SSL_get_client_random(ssl, randoms.data() + SSL3_RANDOM_SIZE, SSL3_RANDOM_SIZE);

    size_t        mac    = shape.mac ? static_cast<size_t>(EVP_MD_get_size(shape.mac)) : 0;
    size_t        key    = static_cast<size_t>(EVP_CIPHER_get_key_length(shape.cipher));
    const EVP_MD *digest = SSL_CIPHER_get_handshake_digest(SSL_get_current_cipher(ssl));
    if (EVP_MD_get_type(digest) == NID_md5_sha1) digest = EVP_sha256();  // the suites older than TLS 1.2
    byte_vector block = prf(digest, {master, master_size}, "key expansion", randoms, 2 * (mac + key + shape.iv_size));
    OPENSSL_cleanse(master, sizeof master);

    auto server_half = [&](size_t before, size_t size) {
        auto start = block.begin() + static_cast<ptrdiff_t>(before + size);
        return byte_vector(start, start + static_cast<ptrdiff_t>(size));
    };
    return {server_half(0, mac), server_half(2 * mac, key), server_half(2 * (mac + key), shape.iv_size)};
}

// The 13 bytes that are authenticated before the content: sequence number, type, version, length.
byte_vector pseudo_header(uint64_t sequence, uint8_t type, size_t length) {
    byte_vector bytes;
    for (int shift = 56; shift >= 0; shift -= 8) bytes.push_back(static_cast<uint8_t>(sequence >> shift));
    append(bytes, byte_vector{type, 3, 3});
    append_u16(bytes, length);
    return bytes;
}

byte_vector record_of(uint8_t type, byte_view body) {
    byte_vector record{type, 3, 3};
    append_u16(record, body.size());
    append(record, body);
    return record;
}

using cipher_context = std::unique_ptr<EVP_CIPHER_CTX, void (*)(EVP_CIPHER_CTX *)>;

cipher_context start_encryption(const EVP_CIPHER *cipher, const byte_vector &key, const byte_vector &iv) {
    cipher_context context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    check(EVP_EncryptInit_ex2(context.get(), cipher, key.data(), iv.data(), nullptr) == 1, "cipher refused");
    return context;
}

// ---- 2 Authenticated ciphers ----------------------------------------------------------------------------------------

byte_vector encrypt_authenticated(const EVP_CIPHER *cipher, const byte_vector &key, const byte_vector &nonce,
                                  const byte_vector &header, byte_view plain) {
    cipher_context context = start_encryption(cipher, key, nonce);
    byte_vector    out(plain.size() + tag_size);
    int            size = 0;
    check(EVP_EncryptUpdate(context.get(), nullptr, &size, header.data(), static_cast<int>(header.size())) == 1,
          "header refused");
    if (!plain.empty())
        check(EVP_EncryptUpdate(context.get(), out.data(), &size, plain.data(), static_cast<int>(plain.size())) == 1,
              "content refused");
    check(EVP_EncryptFinal_ex(context.get(), out.data() + plain.size(), &size) == 1, "no end");
    check(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, tag_size, out.data() + plain.size()) == 1,
          "no tag");
    return out;
}

byte_vector seal_gcm(const cipher_shape &shape, const write_keys &keys, uint8_t type, byte_view plain,
                     uint64_t sequence, byte_view model) {
    check(model.size() >= record_header_size + explicit_nonce_size, "model too short");
    byte_view   explicit_nonce = model.subspan(record_header_size, explicit_nonce_size);
    byte_vector nonce          = keys.iv;
    append(nonce, explicit_nonce);
    byte_vector body(explicit_nonce.begin(), explicit_nonce.end());
    append(body,
           encrypt_authenticated(shape.cipher, keys.key, nonce, pseudo_header(sequence, type, plain.size()), plain));
    return record_of(type, body);
}

byte_vector seal_chacha(const cipher_shape &shape, const write_keys &keys, uint8_t type, byte_view plain,
                        uint64_t sequence) {
    byte_vector nonce = keys.iv;  // RFC 7905: the sequence number is folded into the last 8 bytes
    for (size_t i = 0; i < 8; i++) nonce[nonce.size() - 1 - i] ^= static_cast<uint8_t>(sequence >> (8 * i));
    return record_of(
        type, encrypt_authenticated(shape.cipher, keys.key, nonce, pseudo_header(sequence, type, plain.size()), plain));
}

// ---- 3 CBC with HMAC ------------------------------------------------------------------------------------------------
// MAC, then pad, then encrypt (RFC 5246), or pad, encrypt, then MAC (RFC 7366).

byte_vector hmac(const EVP_MD *digest, const byte_vector &key, const byte_vector &message) {
    byte_vector out(static_cast<size_t>(EVP_MD_get_size(digest)));
    unsigned    size = 0;
    check(HMAC(digest, key.data(), static_cast<int>(key.size()), message.data(), message.size(), out.data(), &size) !=
              nullptr,
          "no HMAC");
    return out;
}

void pad(byte_vector &bytes) {
    size_t filler = block_size - 1 - bytes.size() % block_size;
    bytes.insert(bytes.end(), filler + 1, static_cast<uint8_t>(filler));
}

byte_vector encrypt_cbc(const EVP_CIPHER *cipher, const byte_vector &key, const byte_vector &padded) {
    byte_vector iv(block_size);
    check(RAND_bytes(iv.data(), static_cast<int>(iv.size())) == 1, "no random bytes");
    cipher_context context = start_encryption(cipher, key, iv);
    EVP_CIPHER_CTX_set_padding(context.get(), 0);
    byte_vector out(padded.size());
    int         size = 0;
    check(EVP_EncryptUpdate(context.get(), out.data(), &size, padded.data(), static_cast<int>(padded.size())) == 1,
          "content refused");
    iv.insert(iv.end(), out.begin(), out.end());
    return iv;
}

// The peers may have agreed on either order, and OpenSSL does not tell which: the model shows it.
bool is_mac_outside(const cipher_shape &shape, const write_keys &keys, uint64_t sequence, byte_view model) {
    size_t mac_size = keys.mac.size();
    check(model.size() > record_header_size + mac_size, "model too short");
    byte_view   body    = model.subspan(record_header_size, model.size() - record_header_size - mac_size);
    byte_vector message = pseudo_header(sequence, model[0], body.size());
    append(message, body);
    byte_vector mac = hmac(shape.mac, keys.mac, message);
    return memcmp(mac.data(), model.data() + model.size() - mac_size, mac_size) == 0;
}

byte_vector seal_cbc(const cipher_shape &shape, const write_keys &keys, uint8_t type, byte_view plain,
                     uint64_t sequence, byte_view model) {
    bool        mac_outside = is_mac_outside(shape, keys, sequence, model);
    byte_vector content(plain.begin(), plain.end());
    if (!mac_outside) {
        byte_vector message = pseudo_header(sequence, type, plain.size());
        append(message, plain);
        append(content, hmac(shape.mac, keys.mac, message));
    }
    pad(content);
    byte_vector body = encrypt_cbc(shape.cipher, keys.key, content);
    if (mac_outside) {
        byte_vector message = pseudo_header(sequence, type, body.size());
        append(message, body);
        append(body, hmac(shape.mac, keys.mac, message));
    }
    return record_of(type, body);
}

// ---- 4 The choice between them --------------------------------------------------------------------------------------

cipher_shape shape_of(SSL *ssl) {
    cipher_shape      none{construction_kind::none, nullptr, nullptr, 0};
    const SSL_CIPHER *suite  = SSL_get_current_cipher(ssl);
    const EVP_CIPHER *cipher = suite ? EVP_get_cipherbynid(SSL_CIPHER_get_cipher_nid(suite)) : nullptr;
    if (!cipher || !SSL_get_session(ssl)) return none;
    if (EVP_CIPHER_get_mode(cipher) == EVP_CIPH_GCM_MODE) return {construction_kind::gcm, cipher, nullptr, 4};
    if (EVP_CIPHER_get_nid(cipher) == NID_chacha20_poly1305) return {construction_kind::chacha, cipher, nullptr, 12};
    const EVP_MD *mac    = EVP_get_digestbynid(SSL_CIPHER_get_digest_nid(suite));
    bool          is_cbc = EVP_CIPHER_get_mode(cipher) == EVP_CIPH_CBC_MODE &&
                  EVP_CIPHER_get_block_size(cipher) == static_cast<int>(block_size);
    return is_cbc && mac ? cipher_shape{construction_kind::cbc, cipher, mac, 0} : none;
}

}  // namespace

bool can_seal_record(SSL *ssl) { return shape_of(ssl).construction != construction_kind::none; }

byte_vector seal_record(SSL *ssl, uint8_t type, byte_view plain, uint64_t sequence, byte_view model) {
    cipher_shape shape = shape_of(ssl);
    check(plain.size() <= crafted_record_limit, "too long");
    check(shape.construction != construction_kind::none, "cipher not covered");
    write_keys keys = derive_write_keys(ssl, shape);
    switch (shape.construction) {
    case construction_kind::gcm: return seal_gcm(shape, keys, type, plain, sequence, model);
    case construction_kind::chacha: return seal_chacha(shape, keys, type, plain, sequence);
    case construction_kind::cbc: return seal_cbc(shape, keys, type, plain, sequence, model);
    case construction_kind::none: break;
    }
    return {};
}

}  // namespace gw
