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

void append(Bytes &to, ByteView bytes) { to.insert(to.end(), bytes.begin(), bytes.end()); }

void append_u16(Bytes &to, size_t value) {
    to.push_back(static_cast<uint8_t>(value >> 8));
    to.push_back(static_cast<uint8_t>(value));
}

// 1 Key block: RFC 5246, 6.3. The server's halves are what the gateway writes with.

struct WriteKeys {
    Bytes mac, key, iv;
};

enum class Construction {
    none,
    gcm,
    chacha,
    cbc
};

struct CipherShape {
    Construction      construction;
    const EVP_CIPHER *cipher;
    const EVP_MD     *mac;      // null for authenticated ciphers
    size_t            iv_size;  // bytes of the key block, not of the cipher
};

Bytes prf(const EVP_MD *digest, ByteView secret, std::string_view label, ByteView seed, size_t size) {
    std::unique_ptr<EVP_KDF, void (*)(EVP_KDF *)> kdf(EVP_KDF_fetch(nullptr, "TLS1-PRF", nullptr), EVP_KDF_free);
    check(kdf != nullptr, "no TLS 1.2 PRF");
    std::unique_ptr<EVP_KDF_CTX, void (*)(EVP_KDF_CTX *)> context(EVP_KDF_CTX_new(kdf.get()), EVP_KDF_CTX_free);
    Bytes                                                 full_seed(label.begin(), label.end());
    append(full_seed, seed);
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, const_cast<char *>(EVP_MD_get0_name(digest)), 0),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SECRET, const_cast<uint8_t *>(secret.data()), secret.size()),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SEED, full_seed.data(), full_seed.size()),
        OSSL_PARAM_construct_end(),
    };
    Bytes out(size);
    check(EVP_KDF_derive(context.get(), out.data(), out.size(), params) > 0, "key derivation failed");
    return out;
}

WriteKeys derive_write_keys(SSL *ssl, const CipherShape &shape) {
    uint8_t master[SSL_MAX_MASTER_KEY_LENGTH];
    size_t  master_size = SSL_SESSION_get_master_key(SSL_get_session(ssl), master, sizeof master);
    Bytes   randoms(2 * SSL3_RANDOM_SIZE);
    SSL_get_server_random(ssl, randoms.data(), SSL3_RANDOM_SIZE);
    SSL_get_client_random(ssl, randoms.data() + SSL3_RANDOM_SIZE, SSL3_RANDOM_SIZE);

    size_t        mac    = shape.mac ? static_cast<size_t>(EVP_MD_get_size(shape.mac)) : 0;
    size_t        key    = static_cast<size_t>(EVP_CIPHER_get_key_length(shape.cipher));
    const EVP_MD *digest = SSL_CIPHER_get_handshake_digest(SSL_get_current_cipher(ssl));
    if (EVP_MD_get_type(digest) == NID_md5_sha1) digest = EVP_sha256();  // the suites older than TLS 1.2
    Bytes block = prf(digest, {master, master_size}, "key expansion", randoms, 2 * (mac + key + shape.iv_size));
    OPENSSL_cleanse(master, sizeof master);

    auto server_half = [&](size_t before, size_t size) {
        auto start = block.begin() + static_cast<ptrdiff_t>(before + size);
        return Bytes(start, start + static_cast<ptrdiff_t>(size));
    };
    return {server_half(0, mac), server_half(2 * mac, key), server_half(2 * (mac + key), shape.iv_size)};
}

// The 13 bytes that are authenticated before the content: sequence number, type, version, length.
Bytes pseudo_header(uint64_t sequence, uint8_t type, size_t length) {
    Bytes bytes;
    for (int shift = 56; shift >= 0; shift -= 8) bytes.push_back(static_cast<uint8_t>(sequence >> shift));
    append(bytes, Bytes{type, 3, 3});
    append_u16(bytes, length);
    return bytes;
}

Bytes record_of(uint8_t type, ByteView body) {
    Bytes record{type, 3, 3};
    append_u16(record, body.size());
    append(record, body);
    return record;
}

using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, void (*)(EVP_CIPHER_CTX *)>;

CipherContext start_encryption(const EVP_CIPHER *cipher, const Bytes &key, const Bytes &iv) {
    CipherContext context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    check(EVP_EncryptInit_ex2(context.get(), cipher, key.data(), iv.data(), nullptr) == 1, "cipher refused");
    return context;
}

// 2 Authenticated ciphers.

Bytes encrypt_authenticated(const EVP_CIPHER *cipher, const Bytes &key, const Bytes &nonce, const Bytes &header,
                            ByteView plain) {
    CipherContext context = start_encryption(cipher, key, nonce);
    Bytes         out(plain.size() + tag_size);
    int           size = 0;
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

Bytes seal_gcm(const CipherShape &shape, const WriteKeys &keys, uint8_t type, ByteView plain, uint64_t sequence,
               ByteView model) {
    check(model.size() >= record_header_size + explicit_nonce_size, "model too short");
    ByteView explicit_nonce = model.subspan(record_header_size, explicit_nonce_size);
    Bytes    nonce          = keys.iv;
    append(nonce, explicit_nonce);
    Bytes body(explicit_nonce.begin(), explicit_nonce.end());
    append(body,
           encrypt_authenticated(shape.cipher, keys.key, nonce, pseudo_header(sequence, type, plain.size()), plain));
    return record_of(type, body);
}

Bytes seal_chacha(const CipherShape &shape, const WriteKeys &keys, uint8_t type, ByteView plain, uint64_t sequence) {
    Bytes nonce = keys.iv;  // RFC 7905: the sequence number is folded into the last 8 bytes
    for (size_t i = 0; i < 8; i++) nonce[nonce.size() - 1 - i] ^= static_cast<uint8_t>(sequence >> (8 * i));
    return record_of(
        type, encrypt_authenticated(shape.cipher, keys.key, nonce, pseudo_header(sequence, type, plain.size()), plain));
}

// 3 CBC with HMAC: MAC, then pad, then encrypt (RFC 5246), or pad, encrypt, then MAC (RFC 7366).

Bytes hmac(const EVP_MD *digest, const Bytes &key, const Bytes &message) {
    Bytes    out(static_cast<size_t>(EVP_MD_get_size(digest)));
    unsigned size = 0;
    check(HMAC(digest, key.data(), static_cast<int>(key.size()), message.data(), message.size(), out.data(), &size) !=
              nullptr,
          "no HMAC");
    return out;
}

void pad(Bytes &bytes) {
    size_t filler = block_size - 1 - bytes.size() % block_size;
    bytes.insert(bytes.end(), filler + 1, static_cast<uint8_t>(filler));
}

Bytes encrypt_cbc(const EVP_CIPHER *cipher, const Bytes &key, const Bytes &padded) {
    Bytes iv(block_size);
    check(RAND_bytes(iv.data(), static_cast<int>(iv.size())) == 1, "no random bytes");
    CipherContext context = start_encryption(cipher, key, iv);
    EVP_CIPHER_CTX_set_padding(context.get(), 0);
    Bytes out(padded.size());
    int   size = 0;
    check(EVP_EncryptUpdate(context.get(), out.data(), &size, padded.data(), static_cast<int>(padded.size())) == 1,
          "content refused");
    iv.insert(iv.end(), out.begin(), out.end());
    return iv;
}

// The peers may have agreed on either order, and OpenSSL does not tell which: the model shows it.
bool is_mac_outside(const CipherShape &shape, const WriteKeys &keys, uint64_t sequence, ByteView model) {
    size_t mac_size = keys.mac.size();
    check(model.size() > record_header_size + mac_size, "model too short");
    ByteView body    = model.subspan(record_header_size, model.size() - record_header_size - mac_size);
    Bytes    message = pseudo_header(sequence, model[0], body.size());
    append(message, body);
    Bytes mac = hmac(shape.mac, keys.mac, message);
    return memcmp(mac.data(), model.data() + model.size() - mac_size, mac_size) == 0;
}

Bytes seal_cbc(const CipherShape &shape, const WriteKeys &keys, uint8_t type, ByteView plain, uint64_t sequence,
               ByteView model) {
    bool  mac_outside = is_mac_outside(shape, keys, sequence, model);
    Bytes content(plain.begin(), plain.end());
    if (!mac_outside) {
        Bytes message = pseudo_header(sequence, type, plain.size());
        append(message, plain);
        append(content, hmac(shape.mac, keys.mac, message));
    }
    pad(content);
    Bytes body = encrypt_cbc(shape.cipher, keys.key, content);
    if (mac_outside) {
        Bytes message = pseudo_header(sequence, type, body.size());
        append(message, body);
        append(body, hmac(shape.mac, keys.mac, message));
    }
    return record_of(type, body);
}

// 4 The choice between them.

CipherShape shape_of(SSL *ssl) {
    CipherShape       none{Construction::none, nullptr, nullptr, 0};
    const SSL_CIPHER *suite  = SSL_get_current_cipher(ssl);
    const EVP_CIPHER *cipher = suite ? EVP_get_cipherbynid(SSL_CIPHER_get_cipher_nid(suite)) : nullptr;
    if (!cipher || !SSL_get_session(ssl)) return none;
    if (EVP_CIPHER_get_mode(cipher) == EVP_CIPH_GCM_MODE) return {Construction::gcm, cipher, nullptr, 4};
    if (EVP_CIPHER_get_nid(cipher) == NID_chacha20_poly1305) return {Construction::chacha, cipher, nullptr, 12};
    const EVP_MD *mac    = EVP_get_digestbynid(SSL_CIPHER_get_digest_nid(suite));
    bool          is_cbc = EVP_CIPHER_get_mode(cipher) == EVP_CIPH_CBC_MODE &&
                  EVP_CIPHER_get_block_size(cipher) == static_cast<int>(block_size);
    return is_cbc && mac ? CipherShape{Construction::cbc, cipher, mac, 0} : none;
}

}  // namespace

bool can_seal_record(SSL *ssl) { return shape_of(ssl).construction != Construction::none; }

Bytes seal_record(SSL *ssl, uint8_t type, ByteView plain, uint64_t sequence, ByteView model) {
    CipherShape shape = shape_of(ssl);
    check(plain.size() <= crafted_record_limit, "too long");
    check(shape.construction != Construction::none, "cipher not covered");
    WriteKeys keys = derive_write_keys(ssl, shape);
    switch (shape.construction) {
    case Construction::gcm: return seal_gcm(shape, keys, type, plain, sequence, model);
    case Construction::chacha: return seal_chacha(shape, keys, type, plain, sequence);
    case Construction::cbc: return seal_cbc(shape, keys, type, plain, sequence, model);
    case Construction::none: break;
    }
    return {};
}

}  // namespace gw
