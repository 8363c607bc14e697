// SPDX-License-Identifier: MIT
#include "support/tls_material.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string_view>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include "support/folder.h"

namespace kvr::test {
namespace {

constexpr long kDay = 24L * 60 * 60;

struct Deleter {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(X509* cert) const { X509_free(cert); }
    void operator()(FILE* file) const { fclose(file); }
};
using Key = std::unique_ptr<EVP_PKEY, Deleter>;
using Cert = std::unique_ptr<X509, Deleter>;
using File = std::unique_ptr<FILE, Deleter>;

struct Authority {
    Key key;
    Cert cert;
};

void require(bool done, const char* what) {
    if (!done) {
        throw std::runtime_error(what);
    }
}

/// A signed certificate; `issuer` null: self-signed.
Cert make_cert(EVP_PKEY* key, std::string_view common_name, const Authority* issuer, long from, long until,
               bool is_ca) {
    static long serial = 0;
    Cert cert(X509_new());
    X509_set_version(cert.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), ++serial);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), from);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), until);
    X509_set_pubkey(cert.get(), key);
    X509_NAME* name = X509_get_subject_name(cert.get());
    const auto add = [&](const char* field, std::string_view text) {
        require(X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8,
                                           reinterpret_cast<const unsigned char*>(text.data()),
                                           static_cast<int>(text.size()), -1, 0) == 1,
                "no name entry");
    };
    add("O", "kavro test");
    if (!common_name.empty()) {
        add("CN", common_name);
    }
    X509_set_issuer_name(cert.get(), issuer != nullptr ? X509_get_subject_name(issuer->cert.get()) : name);
    X509_EXTENSION* basic =
        X509V3_EXT_conf_nid(nullptr, nullptr, NID_basic_constraints, is_ca ? "critical,CA:TRUE" : "critical,CA:FALSE");
    require(basic != nullptr && X509_add_ext(cert.get(), basic, -1) == 1, "no extension");
    X509_EXTENSION_free(basic);
    require(X509_sign(cert.get(), issuer != nullptr ? issuer->key.get() : key, EVP_sha256()) > 0, "not signed");
    return cert;
}

Key make_key() {
    Key key(EVP_EC_gen("P-256"));
    require(key != nullptr, "no key");
    return key;
}

void store_cert(const std::string& path, X509* cert) {
    const File file(fopen(path.c_str(), "we"));
    require(file && PEM_write_X509(file.get(), cert) == 1, "certificate not written");
}

void store_key(const std::string& path, EVP_PKEY* key, std::string_view pass) {
    const File file(fopen(path.c_str(), "we"));
    const EVP_CIPHER* cipher = pass.empty() ? nullptr : EVP_aes_256_cbc();
    const char* phrase = pass.empty() ? nullptr : pass.data();
    require(file && PEM_write_PKCS8PrivateKey(file.get(), key, cipher, phrase, static_cast<int>(pass.size()), nullptr,
                                              nullptr) == 1,
            "key not written");
}

class Maker {
  public:
    Maker() : ca_(authority("ca", "Test CA")), other_ca_(authority("other_ca", "Other CA")) {
        using namespace std::string_view_literals;
        made_.ca_file = file("ca.pem");
        made_.server = identity("server", "Receiver.Test", &ca_);
        made_.client = identity("client", "Sender.Test", &ca_);
        made_.encrypted_client = identity("encrypted", "Sender.Test", &ca_, -kDay, kDay, kKeyPass);
        made_.expired_server = identity("expired", "Receiver.Test", &ca_, -2 * kDay, -kDay);
        made_.future_server = identity("future", "Receiver.Test", &ca_, kDay, 2 * kDay);
        made_.foreign_server = identity("foreign", "Receiver.Test", &other_ca_);
        made_.self_signed_server = identity("self_signed", "Receiver.Test", nullptr);
        made_.nameless_server = identity("nameless", "", &ca_);
        made_.nul_name_server = identity("nul_name", "Receiver.Test\0evil"sv, &ca_);
    }
    const TlsMaterial& made() const { return made_; }

  private:
    [[nodiscard]] std::string file(const std::string& name) const { return folder_.path() / name; }
    Authority authority(const std::string& name, std::string_view common_name) {
        Authority made{make_key(), nullptr};
        made.cert = make_cert(made.key.get(), common_name, nullptr, -kDay, kDay, true);
        store_cert(file(name + ".pem"), made.cert.get());
        return made;
    }
    TlsIdentity identity(const std::string& name, std::string_view common_name, const Authority* issuer,
                         long from = -kDay, long until = kDay, std::string_view pass = {}) {
        TlsIdentity made{file(name + ".pem"), file(name + ".key")};
        const Key key = make_key();
        store_cert(made.cert_file, make_cert(key.get(), common_name, issuer, from, until, false).get());
        store_key(made.key_file, key.get(), pass);
        return made;
    }

    TemporaryFolder folder_;
    Authority ca_;
    Authority other_ca_;
    TlsMaterial made_;
};

} // namespace

const TlsMaterial& tls_material() {
    static const Maker maker;
    return maker.made();
}

} // namespace kvr::test
