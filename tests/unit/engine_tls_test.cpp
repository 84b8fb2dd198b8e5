// The TLS set-up: locks, context, PSK callback, and the verification callback against certificates that the openssl
// command makes for the test.

#include <csignal>
#include <fstream>
#include <thread>

#include "tls_peer.h"
#include "tunnel_fixture.h"

// ---- stand-ins ------------------------------------------------------------------------------------------------------

namespace {

bool          ctx_fails;
bool          conf_is_missing;
unsigned long param_flags;

}  // namespace

extern "C" SSL_CTX *__real_SSL_CTX_new(const SSL_METHOD *method);
extern "C" SSL_CTX *__wrap_SSL_CTX_new(const SSL_METHOD *method) {
    return ctx_fails ? nullptr : __real_SSL_CTX_new(method);
}

extern "C" tlsc_config *__real_tlsc_get_config();
extern "C" tlsc_config *__wrap_tlsc_get_config() { return conf_is_missing ? nullptr : __real_tlsc_get_config(); }

extern "C" int __real_SSL_CTX_set1_param(SSL_CTX *ctx, X509_VERIFY_PARAM *param);
extern "C" int __wrap_SSL_CTX_set1_param(SSL_CTX *ctx, X509_VERIFY_PARAM *param) {
    param_flags = X509_VERIFY_PARAM_get_flags(param);
    return __real_SSL_CTX_set1_param(ctx, param);
}

namespace {

using strings = std::vector<std::string>;

// Makes a small certification authority once per process, in a directory of its own:
//   root, other (an authority that nobody trusts), mid (signed by root);
//   leaf, revoked (by root), deep (by mid), client (by root); crl.pem with "revoked" in it.
class authority {
public:
    static const std::string &directory() {
        static const authority instance;
        return instance.directory_;
    }
    static std::string path(const std::string &name) { return directory() + "/" + name; }

private:
    authority() {
        char name[] = "/tmp/authority.XXXXXX";
        if (mkdtemp(name)) directory_ = name;
        const std::string script = R"(
            set -e
            cd )" + directory_ + R"(
            for n in root other mid leaf revoked deep client; do
                openssl ecparam -name prime256v1 -genkey -noout -out $n.key
            done
            ext() { printf 'basicConstraints=critical,CA:%s\nkeyUsage=%s\n' "$1" "$2" > $3.ext; }
            ext TRUE keyCertSign,cRLSign ca
            ext FALSE digitalSignature end
            for n in root other; do
                openssl req -new -key $n.key -subj /CN=$n -out $n.csr
                openssl x509 -req -in $n.csr -signkey $n.key -extfile ca.ext -days 30 -out $n.pem
            done
            sign() { openssl req -new -key $1.key -subj /CN=$1 -out $1.csr
                     openssl x509 -req -in $1.csr -CA $2.pem -CAkey $2.key -CAcreateserial -extfile $3.ext \
                         -days 30 -out $1.pem; }
            sign mid root ca
            sign leaf root end
            sign revoked root end
            sign client root end
            sign deep mid end
            printf '[ca]\ndefault_ca=c\n[c]\ndatabase=index.txt\ncrlnumber=crlnumber\n' > ca.cnf
            printf 'default_md=sha256\ndefault_crl_days=30\n' >> ca.cnf
            : > index.txt
            echo 01 > crlnumber
            openssl ca -config ca.cnf -cert root.pem -keyfile root.key -revoke revoked.pem
            openssl ca -config ca.cnf -cert root.pem -keyfile root.key -gencrl -out crl.pem
            openssl genrsa -out rsa.key 2048
            cat mid.pem root.pem > mid-first.pem
            cat root.pem mid.pem > root-first.pem
            cat deep.pem mid.pem > deep-chain.pem
            cat leaf.pem root.pem > leaf-chain.pem
            : > empty.pem
            mkdir directory.pem
            head -c 300 /dev/urandom > random.pem
            head -c 3000000 /dev/zero > zeros.pem
            sed 's/CERTIFICATE/X509 CRL/' root.pem > crl-of-a-certificate.pem
            sed 's/X509 CRL/CERTIFICATE/' crl.pem > certificate-of-a-crl.pem
            for n in root crl; do
                head -c 200 $n.pem > $n-cut.pem
                sed '2s/./!/5' $n.pem > $n-foreign-letter.pem
                sed '2s/[A-Z]/A/g' $n.pem > $n-other-bytes.pem
                sed '3d' $n.pem > $n-line-lost.pem
                sed '$d' $n.pem > $n-without-end.pem
                sed '/-----/d' $n.pem > $n-without-frame.pem
                awk '{print} /BEGIN/ {for (i = 0; i < 5000; ++i) printf "A"; print ""}' $n.pem > $n-long-line.pem
            done
            { echo "what an authority writes above its certificate"; cat root.pem; } > root-behind-words.pem
        )";
        std::ofstream(directory_ + "/make.sh") << script;
        const int status = system(("sh " + directory_ + "/make.sh > " + directory_ + "/make.log 2>&1").c_str());
        if (status != 0) ADD_FAILURE() << "no certificates, see " << std::ifstream(directory_ + "/make.log").rdbuf();
    }
    ~authority() { (void)!system(("rm -rf " + directory_).c_str()); }

    std::string directory_;
};

class engine_tls : public tunnel_test {
protected:
    engine_tls() {
        signal(SIGPIPE, SIG_IGN);
        ctx_fails   = false;
        param_flags = 0;
        set_text(conf->cipher_algo, peer_cipher);
        conf->ssl_auth_mech = SSL_AUTH_PSK;
        tlsc_ssl_ctx        = nullptr;
        log.clear();
    }
    ~engine_tls() override {
        conf_is_missing = false;  // the next fixture asks for it first of all
        SSL_CTX_free(tlsc_ssl_ctx);
        tlsc_ssl_ctx = nullptr;
    }

    static void set_text(char *field, const std::string &text) { memcpy(field, text.c_str(), text.size() + 1); }

    // A client with certificates; bundle and crl are files of the authority.
    void use_certificates(const std::string &bundle = "root.pem", const std::string &crl = "crl.pem") {
        conf->ssl_auth_mech = SSL_AUTH_CERTIFICATE;
        set_text(conf->cipher_algo, "ECDHE-ECDSA-AES256-GCM-SHA384");
        set_text(conf->ssl_certificate, authority::path("client.pem"));
        set_text(conf->ssl_private_key, authority::path("client.key"));
        set_text(conf->ssl_rootca_bundle, authority::path(bundle));
        set_text(conf->ssl_crl, authority::path(crl));
    }

    // A handshake with a server that shows these certificates; returns the client's SSL_connect result and keeps the
    // verification result of the handle.
    int shake_hands_with(const std::string &chain, const std::string &key) {
        EXPECT_EQ(tlsc_init_ssl_config(), 1);
        tls_peer peer([&](SSL_CTX *ctx) {
            EXPECT_EQ(SSL_CTX_use_certificate_chain_file(ctx, authority::path(chain).c_str()), 1);
            EXPECT_EQ(SSL_CTX_use_PrivateKey_file(ctx, authority::path(key).c_str(), SSL_FILETYPE_PEM), 1);
            SSL_CTX_set_info_callback(ctx, note_alert);
        });
        alert = 0;
        log.clear();
        return connect_to(peer);
    }
    int connect_to(tls_peer &peer) {
        const int   fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family      = AF_INET;
        address.sin_port        = htons(peer.port());
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
        SSL *ssl = SSL_new(tlsc_ssl_ctx);
        SSL_set_fd(ssl, fd);
        SSL_set_connect_state(ssl);
        const int result = SSL_connect(ssl);
        verify_result    = SSL_get_verify_result(ssl);
        (void)peer.connection(0);  // it has read our alert by now
        ERR_clear_error();
        SSL_free(ssl);
        close(fd);
        return result;
    }
    static void note_alert(const SSL *, int where, int ret) {
        if ((where & SSL_CB_READ_ALERT) == SSL_CB_READ_ALERT) alert = ret & 0xFF;
    }

    size_t callbacks() {
        return log.count("INFO", engine_file, "tlsc_verify_cert_cb", "tlsc_verify_cert_cb received...");
    }

    static std::atomic<int> alert;  // that the server got
    long                    verify_result = -1;
};
std::atomic<int> engine_tls::alert;

// ---- locks ----------------------------------------------------------------------------------------------------------

TEST_F(engine_tls, the_lock_array_is_made_and_destroyed_with_its_count) {
    tlsc_init_locks();
    EXPECT_TRUE(log.has("DEBUG", engine_file, "tlsc_init_locks",
                        text_of("Initialized the crypto lock array with no. of locks = %d", CRYPTO_num_locks())));
    tlsc_destroy_locks();
    EXPECT_TRUE(log.has("DEBUG", engine_file, "tlsc_destroy_locks",
                        text_of("Destroyed the crypto lock array with no. of locks = %d", CRYPTO_num_locks())));
}

TEST_F(engine_tls, destroying_locks_that_were_never_made_is_harmless) {
    tlsc_destroy_locks();
    tlsc_destroy_locks();
    EXPECT_EQ(log.messages().size(), 2u);
}

TEST_F(engine_tls, initialising_openssl_makes_the_locks_and_says_so) {
    tlsc_init_openssl();
    EXPECT_EQ(log.messages(),
              (strings{text_of("Initialized the crypto lock array with no. of locks = %d", CRYPTO_num_locks()),
                       "OpenSSL initialized..."}));
    tlsc_destroy_locks();
}

#if TLSC_OPENSSL_1_0
TEST_F(engine_tls, the_callbacks_name_the_thread_and_lock_the_mutex_with_the_number_and_outlive_the_locks) {
    tlsc_init_locks();
    ASSERT_NE(CRYPTO_get_id_callback(), nullptr);
    EXPECT_EQ(CRYPTO_get_id_callback()(), static_cast<unsigned long>(pthread_self()));
    const auto lock = CRYPTO_get_locking_callback();
    ASSERT_NE(lock, nullptr);
    std::atomic<int> stage{0};
    lock(CRYPTO_LOCK | CRYPTO_WRITE, 3, nullptr, -1);
    std::thread other([&] {
        lock(CRYPTO_LOCK | CRYPTO_READ, 4, "any file", 1);  // another one is free
        lock(CRYPTO_UNLOCK | CRYPTO_READ, 4, "any file", 1);
        stage = 1;
        lock(CRYPTO_LOCK | CRYPTO_READ, 3, "any file", 1);
        stage = 2;
        lock(CRYPTO_UNLOCK | CRYPTO_READ, 3, "any file", 1);
    });
    EXPECT_TRUE(eventually([&] { return stage == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(stage, 1);
    lock(CRYPTO_UNLOCK | CRYPTO_WRITE, 3, nullptr, -1);
    other.join();
    EXPECT_EQ(stage, 2);
    tlsc_destroy_locks();
    EXPECT_EQ(CRYPTO_get_locking_callback(), lock);
    lock(CRYPTO_LOCK | CRYPTO_WRITE, 3, nullptr, 0);
    lock(CRYPTO_UNLOCK | CRYPTO_WRITE, 3, nullptr, 0);
}
#endif

// ---- context --------------------------------------------------------------------------------------------------------

TEST_F(engine_tls, a_psk_context_is_made_for_tls_1_2_alone) {
    EXPECT_EQ(tlsc_init_ssl_config(), 1);
    ASSERT_NE(tlsc_ssl_ctx, nullptr);
    EXPECT_EQ(sock->ssl_ctx, tlsc_ssl_ctx);
    EXPECT_EQ(lines_from(engine_file),
              (strings{"INFO tlsc_init_ssl_config: Cipher set successfully for SSL-Ctx : PSK-AES256-CBC-SHA"}));
    EXPECT_EQ(SSL_CTX_get_quiet_shutdown(tlsc_ssl_ctx), 1);
    EXPECT_EQ(SSL_CTX_get_options(tlsc_ssl_ctx) & static_cast<uint64_t>(SSL_OP_ALL), static_cast<uint64_t>(SSL_OP_ALL));
    EXPECT_EQ(SSL_CTX_get_verify_mode(tlsc_ssl_ctx), SSL_VERIFY_NONE);
    EXPECT_NE(SSL_CTX_get_info_callback(tlsc_ssl_ctx), nullptr);
    EXPECT_EQ(SSL_CTX_get_mode(tlsc_ssl_ctx) & SSL_MODE_AUTO_RETRY, 0);

    set_text(psk_identity, "identity");
    set_text(psk_key, peer_key);
    tls_peer old([](SSL_CTX *ctx) { SSL_CTX_set_max_proto_version(ctx, TLS1_1_VERSION); });
    EXPECT_LT(connect_to(old), 1);
    tls_peer any;
    EXPECT_EQ(connect_to(any), 1);
}

TEST_F(engine_tls, a_mechanism_never_set_fails_and_keeps_the_context) {
    for (int32_t mechanism : {0, 3, -1}) {
        conf->ssl_auth_mech = mechanism;
        EXPECT_EQ(tlsc_init_ssl_config(), 0);
        EXPECT_NE(sock->ssl_ctx, nullptr);
        SSL_CTX_free(tlsc_ssl_ctx);
        tlsc_ssl_ctx = nullptr;
    }
    EXPECT_EQ(
        log.count("ERROR", engine_file, "tlsc_init_ssl_config", "Invalid ssl_auth_mechanism found in global-config"),
        3u);
}

TEST_F(engine_tls, an_invalid_cipher_list_fails_and_leaves_no_context) {
    for (const char *list : {"", "NO-SUCH-CIPHER"}) {
        set_text(conf->cipher_algo, list);
        EXPECT_EQ(tlsc_init_ssl_config(), 0);
        EXPECT_EQ(sock->ssl_ctx, nullptr);
        EXPECT_EQ(tlsc_ssl_ctx, nullptr);
        EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_init_ssl_config",
                            std::string("Could not set the SSL Cipher: ") + list));
    }
}

TEST_F(engine_tls, a_context_that_cannot_be_made_is_reported) {
    ctx_fails = true;
    EXPECT_EQ(tlsc_init_ssl_config(), 0);
    EXPECT_EQ(
        lines_from(engine_file),
        (strings{
            "ERROR tlsc_init_ssl_config: Allocating ssl-ctx failed using API: SSL_CTX_new(), with TLSv1_2 method"}));
    EXPECT_EQ(sock->ssl_ctx, nullptr);
}

TEST_F(engine_tls, a_certificate_context_verifies_the_peer_with_crl_checks_to_depth_3) {
    use_certificates();
    EXPECT_EQ(tlsc_init_ssl_config(), 1);
    EXPECT_EQ(SSL_CTX_get_verify_mode(tlsc_ssl_ctx), 5);
    EXPECT_EQ(SSL_CTX_get_verify_depth(tlsc_ssl_ctx), 3);
    EXPECT_EQ(param_flags & 12u, 12u);
    EXPECT_EQ(SSL_CTX_get_verify_callback(tlsc_ssl_ctx), tlsc_verify_cert_cb);
    EXPECT_EQ(X509_VERIFY_PARAM_get_flags(SSL_CTX_get0_param(tlsc_ssl_ctx)) & 12u, 12u);
}

TEST_F(engine_tls, without_a_configuration_record_no_context_is_made) {
    conf_is_missing = true;
    EXPECT_EQ(tlsc_init_ssl_config(), 0);
    EXPECT_EQ(log.entries().size(), 1u);
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_init_ssl_config", "Null ptr received for tlsc_config"));
    EXPECT_EQ(tlsc_ssl_ctx, nullptr);
    EXPECT_EQ(sock->ssl_ctx, nullptr);
}

TEST_F(engine_tls, a_context_whose_mechanism_or_certificates_fail_is_kept_as_it_was_made) {
    for (int32_t mechanism : {SSL_AUTH_NONE, SSL_AUTH_CERTIFICATE}) {
        conf->ssl_auth_mech = mechanism;  // the certificates have no names
        testing::internal::CaptureStderr();
        EXPECT_EQ(tlsc_init_ssl_config(), 0);
        (void)testing::internal::GetCapturedStderr();
        ERR_clear_error();
        ASSERT_NE(tlsc_ssl_ctx, nullptr);
        EXPECT_EQ(sock->ssl_ctx, tlsc_ssl_ctx);
        EXPECT_EQ(SSL_CTX_get_verify_mode(tlsc_ssl_ctx), SSL_VERIFY_NONE);
        EXPECT_EQ(SSL_CTX_get_verify_callback(tlsc_ssl_ctx), nullptr);
        EXPECT_EQ(SSL_CTX_get_info_callback(tlsc_ssl_ctx), nullptr);
        EXPECT_EQ(SSL_CTX_get_quiet_shutdown(tlsc_ssl_ctx), 0);
        SSL_CTX_free(tlsc_ssl_ctx);
        tlsc_ssl_ctx = nullptr;
    }
}

TEST_F(engine_tls, the_protocol_is_traced_by_both_callbacks_of_the_context) {
    set_text(psk_identity, "identity");
    set_text(psk_key, peer_key);
    ASSERT_EQ(tlsc_init_ssl_config(), 1);
    tlsc_log_level = LOG_SSL_DBG;
    tls_peer peer;
    EXPECT_EQ(connect_to(peer), 1);
    EXPECT_TRUE(logged_like("SSL_DEBUG", "tlsc_ssl_msg_cb", ">>> TLS 1.2 Handshake [length *], ClientHello*"));
    EXPECT_TRUE(log.has("SSL_DEBUG", "tlsc_debug.c", "tlsc_ssl_info_cb",
                        "Handshake done: SSL negotiation finished successfully"));
}

// ---- certificates of the client -------------------------------------------------------------------------------------

TEST_F(engine_tls, loading_certificates_stops_at_the_first_failure) {
    SSL_CTX *ctx = __real_SSL_CTX_new(TLS_client_method());
    use_certificates();
    EXPECT_EQ(tlsc_load_certs(ctx, conf), 1);
    EXPECT_EQ(tlsc_load_certs(nullptr, conf), 0);
    EXPECT_EQ(tlsc_load_certs(ctx, nullptr), 0);
    EXPECT_EQ(log.count("ERROR", engine_file, "tlsc_load_certs", "Null pointer received for ctx/conf"), 2u);

    log.clear();
    testing::internal::CaptureStderr();
    set_text(conf->ssl_certificate, "/nonexistent.pem");
    EXPECT_EQ(tlsc_load_certs(ctx, conf), 0);
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(log.text(), "");

    use_certificates();
    testing::internal::CaptureStderr();
    set_text(conf->ssl_private_key, authority::path("empty.pem"));
    EXPECT_EQ(tlsc_load_certs(ctx, conf), 0);
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(log.text(), "");

    use_certificates();
    set_text(conf->ssl_rootca_bundle, authority::path("empty.pem"));
    EXPECT_EQ(tlsc_load_certs(ctx, conf), 0);
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_load_certs", "Loading of ssl root chain failed"));
    ERR_clear_error();
    SSL_CTX_free(ctx);
}

TEST_F(engine_tls, a_key_that_does_not_match_the_certificate_is_refused) {
    use_certificates();
    set_text(conf->ssl_private_key, authority::path("leaf.key"));
    testing::internal::CaptureStderr();
    EXPECT_EQ(tlsc_init_ssl_config(), 0);
    (void)testing::internal::GetCapturedStderr();
    EXPECT_NE(sock->ssl_ctx, nullptr);  // the context is kept, without callbacks and cipher list
    ERR_clear_error();
}

TEST_F(engine_tls, a_key_of_another_kind_is_reported_as_not_matching) {
    use_certificates();
    set_text(conf->ssl_private_key, authority::path("rsa.key"));
    EXPECT_EQ(tlsc_init_ssl_config(), 0);
    EXPECT_EQ(log.entries().size(), 1u);
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_load_certs", "Private key does not match the public certificate"));
    ERR_clear_error();
}

// Files that are none, or hold something else, or are damaged.
const char *const broken_files[] = {"no-such-file.pem",
                                    "empty.pem",
                                    "directory.pem",
                                    "random.pem",
                                    "zeros.pem",
                                    "root-cut.pem",
                                    "root-without-end.pem",
                                    "root-without-frame.pem",
                                    "root-line-lost.pem",
                                    "root-foreign-letter.pem",
                                    "crl-cut.pem",
                                    "crl-without-end.pem",
                                    "crl-without-frame.pem",
                                    "crl-line-lost.pem",
                                    "crl-foreign-letter.pem",
                                    "crl-of-a-certificate.pem",
                                    "certificate-of-a-crl.pem",
                                    "root.key",
                                    "root-long-line.pem",
                                    "crl-long-line.pem",
                                    "crl-other-bytes.pem",
                                    "root-other-bytes.pem"};

TEST_F(engine_tls, no_broken_file_in_the_place_of_one_of_the_clients_gets_past_the_loading) {
    testing::internal::CaptureStderr();
    for (const char *file : broken_files) {
        // Each of the three in turn; the check of the CRL waits for the handshake.
        for (int which = 0; which < 3; ++which) {
            use_certificates();
            char *const fields[] = {conf->ssl_certificate, conf->ssl_private_key, conf->ssl_rootca_bundle};
            if (which == 1 && file == std::string("root.key")) continue;  // is one, only not the certificate's
            set_text(fields[which], authority::path(file));
            SSL_CTX      *ctx    = __real_SSL_CTX_new(TLS_client_method());
            const int32_t result = tlsc_load_certs(ctx, conf);
            const bool    is_crl = std::string(file).find("crl") == 0;  // which a bundle may hold
            if (which != 2 || !is_crl) {
                EXPECT_EQ(result, 0) << file << " " << which;
            }
            ERR_clear_error();
            SSL_CTX_free(ctx);
        }
    }
    (void)testing::internal::GetCapturedStderr();
}

TEST_F(engine_tls, no_broken_file_in_the_place_of_bundle_or_crl_lets_a_certificate_pass) {
    use_certificates();
    FILE *file = fopen(authority::path("leaf.pem").c_str(), "r");
    X509 *leaf = PEM_read_X509(file, nullptr, nullptr, nullptr);
    fclose(file);
    X509_STORE *store  = X509_STORE_new();
    const auto  verify = [&] {
        X509_STORE_CTX *outer = X509_STORE_CTX_new();
        X509_STORE_CTX_init(outer, store, leaf, nullptr);
        X509_STORE_CTX_set_current_cert(outer, leaf);
        const int verdict = tlsc_verify_cert_cb(1, outer);
        X509_STORE_CTX_free(outer);
        return verdict;
    };
    const int before = open_descriptors();
    ASSERT_EQ(verify(), 1);
    for (const char *broken : broken_files) {
        use_certificates(broken);
        EXPECT_EQ(verify(), 0) << "bundle " << broken;
        use_certificates("root.pem", broken);
        EXPECT_EQ(verify(), 0) << "crl " << broken;
    }
    use_certificates("root-behind-words.pem");  // what stands above the first certificate is not looked at
    EXPECT_EQ(verify(), 1);
    EXPECT_EQ(open_descriptors(), before);
    ERR_clear_error();
    conf_is_missing = true;
    log.clear();
    EXPECT_EQ(verify(), 0);
    EXPECT_EQ(log.messages(), (strings{"tlsc_verify_cert_cb received...", "Null ptr received for conf"}));
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_verify_cert_cb", "Null ptr received for conf"));
    X509_STORE_free(store);
    X509_free(leaf);
}

// ---- the verification callback --------------------------------------------------------------------------------------

TEST_F(engine_tls, a_leaf_of_the_root_with_a_crl_is_accepted) {
    use_certificates();
    EXPECT_EQ(shake_hands_with("leaf.pem", "leaf.key"), 1);
    EXPECT_GE(callbacks(), 1u);
    EXPECT_TRUE(log.has("DEBUG", engine_file, "tlsc_verify_cert_cb", "Verification passed for cert"));
    EXPECT_EQ(verify_result, X509_V_OK);
}

TEST_F(engine_tls, a_server_that_also_sends_the_root_is_accepted) {
    use_certificates();
    EXPECT_EQ(shake_hands_with("leaf-chain.pem", "leaf.key"), 1);
}

TEST_F(engine_tls, openssls_own_verdict_is_ignored) {
    use_certificates();
    ASSERT_EQ(tlsc_init_ssl_config(), 1);
    FILE *file = fopen(authority::path("leaf.pem").c_str(), "r");
    X509 *leaf = PEM_read_X509(file, nullptr, nullptr, nullptr);
    fclose(file);
    file      = fopen(authority::path("revoked.pem").c_str(), "r");
    X509 *bad = PEM_read_X509(file, nullptr, nullptr, nullptr);
    fclose(file);
    X509_STORE *store = X509_STORE_new();
    for (int preverified : {0, 1}) {
        for (X509 *cert : {leaf, bad}) {
            X509_STORE_CTX *outer = X509_STORE_CTX_new();
            X509_STORE_CTX_init(outer, store, cert, nullptr);
            X509_STORE_CTX_set_current_cert(outer, cert);
            EXPECT_EQ(tlsc_verify_cert_cb(preverified, outer), cert == leaf ? 1 : 0);
            EXPECT_EQ(X509_STORE_CTX_get_error(outer), cert == leaf ? X509_V_OK : X509_V_ERR_CERT_REVOKED);
            X509_STORE_CTX_free(outer);
        }
    }
    X509_STORE_CTX *empty = X509_STORE_CTX_new();
    X509_STORE_CTX_init(empty, store, nullptr, nullptr);
    EXPECT_EQ(tlsc_verify_cert_cb(1, empty), 0);
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_verify_cert_cb", "Could not fetch the current certificate \n"));
    X509_STORE_CTX_free(empty);
    X509_STORE_free(store);
    X509_free(leaf);
    X509_free(bad);
}

TEST_F(engine_tls, a_revoked_leaf_is_rejected_with_error_23_and_the_peer_told_so) {
    use_certificates();
    EXPECT_LT(shake_hands_with("revoked.pem", "revoked.key"), 1);
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_verify_cert_cb", "SSL error in certificate = 23"));
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_verify_cert_cb",
                        "Verification failed for cert, error str = certificate revoked"));
    EXPECT_TRUE(
        log.has("WARNING", engine_file, "tlsc_verify_cert_cb", "Depth of certificate where error occurred = 0"));
    EXPECT_EQ(alert, SSL_AD_CERTIFICATE_REVOKED);
}

TEST_F(engine_tls, a_missing_crl_file_rejects_every_certificate) {
    use_certificates("root.pem", "no-such-file.pem");
    EXPECT_LT(shake_hands_with("leaf.pem", "leaf.key"), 1);
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_verify_cert_cb", "Could not open crl file"));
    EXPECT_FALSE(log.contains("Verification passed"));
    EXPECT_EQ(alert, SSL_AD_UNKNOWN_CA);
}

TEST_F(engine_tls, a_crl_file_without_a_crl_is_no_error_of_its_own_but_rejects) {
    use_certificates("root.pem", "empty.pem");
    EXPECT_LT(shake_hands_with("leaf.pem", "leaf.key"), 1);
    EXPECT_FALSE(log.contains("Could not open crl file"));
    EXPECT_TRUE(log.contains("SSL error in certificate = 3"));
    EXPECT_EQ(alert, SSL_AD_UNKNOWN_CA);
}

TEST_F(engine_tls, a_missing_bundle_rejects) {
    use_certificates();
    ASSERT_EQ(tlsc_init_ssl_config(), 1);
    FILE *file = fopen(authority::path("leaf.pem").c_str(), "r");
    X509 *leaf = PEM_read_X509(file, nullptr, nullptr, nullptr);
    fclose(file);
    X509_STORE     *store = X509_STORE_new();
    X509_STORE_CTX *outer = X509_STORE_CTX_new();
    X509_STORE_CTX_init(outer, store, leaf, nullptr);
    X509_STORE_CTX_set_current_cert(outer, leaf);
    const int before = open_descriptors();
    set_text(conf->ssl_rootca_bundle, "/nonexistent.pem");
    EXPECT_EQ(tlsc_verify_cert_cb(1, outer), 0);
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_verify_cert_cb", "Could not open root certificate file"));
    set_text(conf->ssl_rootca_bundle, authority::path("empty.pem"));
    EXPECT_EQ(tlsc_verify_cert_cb(1, outer), 0);
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_verify_cert_cb", "Failed to add root certificate to store"));
    EXPECT_EQ(open_descriptors(), before);
    X509_STORE_CTX_free(outer);
    X509_STORE_free(store);
    X509_free(leaf);
    ERR_clear_error();
}

TEST_F(engine_tls, every_certificate_must_verify_directly_against_the_first_certificate_of_the_bundle) {
    use_certificates("root-first.pem");  // the chain is complete, but the leaf is signed by the second
    EXPECT_LT(shake_hands_with("deep-chain.pem", "deep.key"), 1);
    EXPECT_TRUE(log.contains("SSL error in certificate = 20"));
    EXPECT_EQ(alert, SSL_AD_UNKNOWN_CA);

    SSL_CTX_free(tlsc_ssl_ctx);
    use_certificates("mid-first.pem");  // the first is no root
    EXPECT_LT(shake_hands_with("deep-chain.pem", "deep.key"), 1);
    EXPECT_TRUE(log.contains("SSL error in certificate = 2"));
    EXPECT_TRUE(log.contains("Depth of certificate where error occurred = 1"));
    EXPECT_EQ(alert, SSL_AD_UNKNOWN_CA);
}

TEST_F(engine_tls, a_leaf_of_another_root_is_rejected) {
    use_certificates("other.pem");
    EXPECT_LT(shake_hands_with("leaf.pem", "leaf.key"), 1);
    EXPECT_TRUE(log.contains("SSL error in certificate = 20"));
    EXPECT_EQ(alert, SSL_AD_UNKNOWN_CA);
}

// ---- the PSK callback -----------------------------------------------------------------------------------------------

TEST_F(engine_tls, callbacks_without_room_for_an_answer_fail_with_an_error_line) {
    char          identity[129];
    unsigned char key[257];
    EXPECT_EQ(tlsc_psk_client_cb(nullptr, "", nullptr, sizeof(identity), key, sizeof(key)), 0u);
    EXPECT_EQ(tlsc_psk_client_cb(nullptr, "", identity, sizeof(identity), nullptr, sizeof(key)), 0u);
    EXPECT_EQ(log.count("ERROR", engine_file, "tlsc_psk_client_cb", "Null ptr received for identity/psk"), 2u);
    EXPECT_EQ(tlsc_verify_cert_cb(1, nullptr), 0);
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_verify_cert_cb", "Null ptr received for store"));
}

TEST_F(engine_tls, the_key_is_the_configured_text_itself_byte_for_byte_not_decoded_from_hexadecimal) {
    set_text(psk_identity, "device-7");
    set_text(psk_key, "abcd1234");
    char          identity[129];
    unsigned char key[257];
    memset(key, 0xEE, sizeof(key));
    EXPECT_EQ(tlsc_psk_client_cb(nullptr, "the hint", identity, sizeof(identity), key, sizeof(key)), 8u);
    EXPECT_STREQ(identity, "device-7");
    EXPECT_EQ(std::string(reinterpret_cast<char *>(key), 8), "abcd1234");
    EXPECT_EQ(key[8], 0xEE);  // no terminator
    EXPECT_EQ(lines_from(engine_file), (strings{"INFO tlsc_psk_client_cb: psk_client_cb received...",
                                                "DEBUG tlsc_psk_client_cb: Received PSK-identity-hint 'the hint'",
                                                "DEBUG tlsc_psk_client_cb: created identity 'device-7' len=8",
                                                "INFO tlsc_psk_client_cb: created PSK of len = 8"}));
}

TEST_F(engine_tls, a_missing_hint_is_a_warning_only) {
    set_text(psk_identity, "i");
    set_text(psk_key, "k");
    char          identity[129];
    unsigned char key[257];
    EXPECT_EQ(tlsc_psk_client_cb(nullptr, nullptr, identity, sizeof(identity), key, sizeof(key)), 1u);
    EXPECT_TRUE(log.has("WARNING", engine_file, "tlsc_psk_client_cb",
                        "NULL received for PSK-identity-hint, continuing anyway..."));
}

TEST_F(engine_tls, a_hint_is_shown_without_being_obeyed_and_influences_nothing) {
    set_text(psk_identity, "i");
    set_text(psk_key, "k");
    const std::pair<std::string, std::string> hints[] = {
        {"", ""},
        {"%s%n%x", "%s%n%x"},
        {"a\nTLSC[7]: \x1b[2J\xff", "a\\x0aTLSC[7]: \\x1b[2J\xff"},
        {std::string(500, 'h'), std::string(500, 'h')},
    };
    for (const auto &[hint, shown] : hints) {
        char          identity[129];
        unsigned char key[257];
        EXPECT_EQ(tlsc_psk_client_cb(nullptr, hint.c_str(), identity, sizeof(identity), key, sizeof(key)), 1u);
        EXPECT_STREQ(identity, "i");
        EXPECT_TRUE(log.has("DEBUG", engine_file, "tlsc_psk_client_cb", "Received PSK-identity-hint '" + shown + "'"));
    }
}

TEST_F(engine_tls, the_room_for_the_key_is_not_checked_and_an_empty_key_gives_0) {
    set_text(psk_identity, "i");
    set_text(psk_key, "abcd1234");
    char          identity[129];
    unsigned char key[257];
    EXPECT_EQ(tlsc_psk_client_cb(nullptr, "", identity, sizeof(identity), key, 4), 8u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(key), 8), "abcd1234");
    set_text(psk_key, "");
    log.clear();
    EXPECT_EQ(tlsc_psk_client_cb(nullptr, "", identity, sizeof(identity), key, sizeof(key)), 0u);
    EXPECT_EQ(log.messages().back(), "created PSK of len = 0");
}

TEST_F(engine_tls, an_identity_that_does_not_fit_fails) {
    set_text(psk_identity, std::string(128, 'i'));
    set_text(psk_key, std::string(256, 'k'));
    char          identity[200];
    unsigned char key[257];
    EXPECT_EQ(tlsc_psk_client_cb(nullptr, "", identity, 129, key, sizeof(key)), 256u);
    EXPECT_EQ(strlen(identity), 128u);
    EXPECT_EQ(tlsc_psk_client_cb(nullptr, "", identity, 128, key, sizeof(key)), 0u);
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_psk_client_cb", "Error in PSK client callback"));
}

TEST_F(engine_tls, the_key_never_shows_in_the_log) {
    set_text(psk_identity, "identity");
    set_text(psk_key, "secret-key-text");
    tlsc_log_level = LOG_BUF_PRINT;
    ASSERT_EQ(tlsc_init_ssl_config(), 1);
    tls_peer peer(nullptr, "secret-key-text");
    EXPECT_EQ(connect_to(peer), 1);
    EXPECT_TRUE(log.contains("created PSK of len = 15"));
    EXPECT_FALSE(log.contains("secret-key-text"));
    EXPECT_FALSE(log.contains(" 73 65 63 72 65 74"));
}

TEST_F(engine_tls, the_longest_identity_and_key_work_in_a_handshake) {
    set_text(psk_identity, std::string(128, 'i'));
    set_text(psk_key, std::string(256, 'k'));
    ASSERT_EQ(tlsc_init_ssl_config(), 1);
    tls_peer peer(nullptr, std::string(256, 'k'));
    EXPECT_EQ(connect_to(peer), 1);
    EXPECT_EQ(peer.identity(), std::string(128, 'i'));
}

// ---- the right peer -------------------------------------------------------------------------------------------------

TEST_F(engine_tls, a_server_that_chooses_a_certificate_suite_shows_no_key_and_gets_nothing) {
    set_text(conf->cipher_algo, "PSK-AES256-CBC-SHA:ECDHE-ECDSA-AES256-GCM-SHA384");
    set_text(conf->svr_addr_ipv4, "127.0.0.1");
    set_text(conf->device_id, "device");
    set_text(psk_identity, "identity");
    set_text(psk_key, peer_key);
    ASSERT_EQ(tlsc_init_ssl_config(), 1);
    tls_peer peer([](SSL_CTX *ctx) {
        EXPECT_EQ(SSL_CTX_set_cipher_list(ctx, "ECDHE-ECDSA-AES256-GCM-SHA384"), 1);
        EXPECT_EQ(SSL_CTX_use_certificate_chain_file(ctx, authority::path("leaf.pem").c_str()), 1);
        EXPECT_EQ(SSL_CTX_use_PrivateKey_file(ctx, authority::path("leaf.key").c_str(), SSL_FILETYPE_PEM), 1);
    });
    conf->server_port = peer.port();
    log.clear();
    EXPECT_EQ(tlsc_create_tcp_conn(), 7);
    EXPECT_EQ(peer.connection(0).read_record(), "");
    EXPECT_EQ(sock->ssl, nullptr);
    EXPECT_EQ(sock->ssl_up, 0);
    EXPECT_EQ(sock->sockfd, -1);
    EXPECT_TRUE(
        log.has("ERROR", engine_file, "tlsc_create_tcp_conn", "ssl-connect error : 1, ssl-connect ret-value = -1"));
    EXPECT_TRUE(logged_like("ERROR", "tlsc_create_tcp_conn", "SSL connect failed!! Error = *wrong cipher returned*"));
    EXPECT_TRUE(log.has("WARNING", engine_file, "tlsc_create_tcp_conn",
                        "Could not build a SSL session to: 127.0.0.1, Initiate session and ssl cleanup"));
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_sock_error", "Closing connection and bringing down tun interface"));
    EXPECT_FALSE(log.contains("Successfully enabled SSL/TLS session"));
    EXPECT_FALSE(log.contains("Building CSTP-CONFIG-REQ"));
}

}  // namespace
