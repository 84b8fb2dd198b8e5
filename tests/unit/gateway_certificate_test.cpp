#include "gateway_harness.h"

// Certificates instead of pre-shared keys: who is let in.

#include <openssl/pem.h>
#include <openssl/x509v3.h>

using namespace gw;
using namespace gwtest;

namespace {

struct certified {
    EVP_PKEY *key         = nullptr;
    X509     *certificate = nullptr;

    ~certified() {
        EVP_PKEY_free(key);
        X509_free(certificate);
    }
};

// A certificate for `name` with that serial number, signed by `issuer` or, without one, by itself as a CA.
void issue(certified &party, const char *name, long serial, const certified *issuer) {
    party.key         = EVP_EC_gen("P-256");
    party.certificate = X509_new();
    X509 *certificate = party.certificate;
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), serial);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 86400);
    X509_set_pubkey(certificate, party.key);
    X509_NAME *subject = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>(name), -1, -1, 0);
    X509_set_issuer_name(certificate, X509_get_subject_name(issuer ? issuer->certificate : certificate));
    if (!issuer) {
        X509_EXTENSION *extension = X509V3_EXT_conf_nid(nullptr, nullptr, NID_basic_constraints, "critical,CA:TRUE");
        X509_add_ext(certificate, extension, -1);
        X509_EXTENSION_free(extension);
    }
    X509_sign(certificate, issuer ? issuer->key : party.key, EVP_sha256());
}

template <class Write>
std::string write_pem(const temp_dir &dir, const std::string &name, Write write) {
    FILE *file = fopen(dir.file(name).c_str(), "w");
    EXPECT_EQ(write(file), 1);
    fclose(file);
    std::filesystem::permissions(dir.file(name), std::filesystem::perms(0600));
    return dir.file(name);
}

std::string write_certificate(const temp_dir &dir, const std::string &name, const certified &party) {
    return write_pem(dir, name, [&](FILE *file) { return PEM_write_X509(file, party.certificate); });
}

std::string write_key(const temp_dir &dir, const std::string &name, const certified &party) {
    return write_pem(dir, name, [&](FILE *file) {
        return PEM_write_PrivateKey(file, party.key, nullptr, nullptr, 0, nullptr, nullptr);
    });
}

std::string write_crl(const temp_dir &dir, const certified &ca, long revoked_serial) {
    X509_CRL *crl = X509_CRL_new();
    X509_CRL_set_version(crl, 1);
    X509_CRL_set_issuer_name(crl, X509_get_subject_name(ca.certificate));
    ASN1_TIME *time = X509_gmtime_adj(nullptr, -60);
    X509_CRL_set1_lastUpdate(crl, time);
    X509_gmtime_adj(time, 86400);
    X509_CRL_set1_nextUpdate(crl, time);
    X509_REVOKED *revoked = X509_REVOKED_new();
    ASN1_INTEGER *serial  = ASN1_INTEGER_new();
    ASN1_INTEGER_set(serial, revoked_serial);
    X509_REVOKED_set_serialNumber(revoked, serial);
    X509_gmtime_adj(time, -60);
    X509_REVOKED_set_revocationDate(revoked, time);
    X509_CRL_add0_revoked(crl, revoked);
    X509_CRL_sign(crl, ca.key, EVP_sha256());
    std::string path = write_pem(dir, "crl", [&](FILE *file) { return PEM_write_X509_CRL(file, crl); });
    ASN1_INTEGER_free(serial);
    ASN1_TIME_free(time);
    X509_CRL_free(crl);
    return path;
}

// A CA with a server, a client in good standing and a revoked one; and a client of another CA.
class gateway_certificate : public testing::Test {
protected:
    void SetUp() override {
        issue(ca_, "test ca", 1, nullptr);
        issue(other_ca_, "other ca", 1, nullptr);
        issue(server_, "gateway", 2, &ca_);
        issue(good_, "device-7", 3, &ca_);
        issue(revoked_, "device-8", 4, &ca_);
        issue(stranger_, "device-7", 3, &other_ca_);
        options_ = {"--cert", write_certificate(dir_, "server.pem", server_), "--key",
                    write_key(dir_, "server.key", server_)};
    }

    std::vector<std::string> options_with(std::vector<std::string> more) {
        more.insert(more.begin(), options_.begin(), options_.end());
        return more;
    }
    std::vector<std::string> require_clients() {
        return options_with({"--client-ca", write_certificate(dir_, "ca.pem", ca_), "--crl", write_crl(dir_, ca_, 4)});
    }

    test_client::client_settings settings(const certified *party) {
        test_client::client_settings made;
        made.ciphers = "ECDHE-ECDSA-AES256-GCM-SHA384";
        if (!party) return made;
        made.certificate = write_certificate(dir_, "client.pem", *party);
        made.private_key = write_key(dir_, "client.key", *party);
        return made;
    }

    temp_dir                 dir_;
    certified                ca_, other_ca_, server_, good_, revoked_, stranger_;
    std::vector<std::string> options_;
};

}  // namespace

TEST_F(gateway_certificate, a_client_with_a_good_certificate_is_let_in_under_its_common_name) {
    test_gateway gateway(require_clients(), false);
    test_client  client(gateway.port(), settings(&good_));
    ASSERT_TRUE(client.up) << client.reason;
    EXPECT_NE(client.configure(), "");
    EXPECT_EQ(gateway.controller().event("tls_up")["identity"], "device-7");
}

TEST_F(gateway_certificate, a_revoked_certificate_is_refused_with_its_own_alert) {
    test_gateway gateway(require_clients(), false);
    test_client  client(gateway.port(), settings(&revoked_));
    EXPECT_FALSE(client.up);
    EXPECT_EQ(client.reason, "sslv3 alert certificate revoked");
    EXPECT_EQ(gateway.controller().event("tls_failed")["reason"], "certificate verify failed");
}

TEST_F(gateway_certificate, a_certificate_of_another_ca_is_refused) {
    test_gateway gateway(require_clients(), false);
    EXPECT_FALSE(test_client(gateway.port(), settings(&stranger_)).up);
}

TEST_F(gateway_certificate, a_client_without_certificate_is_refused_only_where_one_is_required) {
    {
        test_gateway gateway(require_clients(), false);
        EXPECT_FALSE(test_client(gateway.port(), settings(nullptr)).up);
    }
    test_gateway gateway(options_, false);
    EXPECT_TRUE(test_client(gateway.port(), settings(nullptr)).up);
}

TEST_F(gateway_certificate, keys_and_certificates_can_be_offered_together) {
    test_gateway gateway(options_, true);
    EXPECT_TRUE(test_client(gateway.port(), settings(nullptr)).up);
    EXPECT_TRUE(test_client(gateway.port()).up);
}

TEST_F(gateway_certificate, files_that_do_not_fit_together_are_complained_of) {
    std::string other_key = write_key(dir_, "other.key", good_);
    EXPECT_THROW(tls_context({.cert = options_[1], .key = other_key}), usage_error);
    EXPECT_THROW(tls_context({.cert = options_[1], .key = options_[3], .client_ca = dir_.file("none")}), usage_error);
    EXPECT_THROW(tls_context({.cert = options_[1], .key = options_[3], .client_ca = dir_.write("empty", "")}),
                 usage_error);
    EXPECT_THROW(
        tls_context(
            {.cert = options_[1], .key = options_[3], .client_ca = options_[1], .crl = dir_.write("junk", "junk")}),
        usage_error);
}
