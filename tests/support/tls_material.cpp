// SPDX-License-Identifier: MIT
#include "support/tls_material.h"

#include <memory>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "support/folder.h"

namespace kvr::test {
namespace {

using namespace std::string_view_literals;

constexpr long kDay = 24L * 60 * 60;

struct Party {
    std::shared_ptr<EVP_PKEY> key{EVP_EC_gen("P-256"), EVP_PKEY_free};
    std::shared_ptr<X509> cert{X509_new(), X509_free};
};

/// `issuer` null: self-signed. Valid from `first_day` on, 0 is today, for two days.
Party make_party(std::string_view common_name, const Party* issuer, long first_day = -1) {
    Party made;
    const Party& signer = issuer != nullptr ? *issuer : made;
    X509* cert = made.cert.get();
    X509_gmtime_adj(X509_getm_notBefore(cert), first_day * kDay);
    X509_gmtime_adj(X509_getm_notAfter(cert), (first_day + 2) * kDay);
    X509_set_pubkey(cert, made.key.get());
    X509_NAME_add_entry_by_NID(X509_get_subject_name(cert), NID_commonName, MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(common_name.data()),
                               static_cast<int>(common_name.size()), -1, 0);
    X509_set_issuer_name(cert, X509_get_subject_name(signer.cert.get()));
    X509_sign(cert, signer.key.get(), EVP_sha256());
    return made;
}

std::shared_ptr<BIO> open_file(const std::string& path) {
    return {BIO_new_file(path.c_str(), "w"), BIO_free};
}

TlsIdentity store(const std::filesystem::path& path, const Party& party, std::string_view phrase = {}) {
    TlsIdentity made{path.native() + ".pem", path.native() + ".key"};
    PEM_write_bio_X509(open_file(made.cert_file).get(), party.cert.get());
    PEM_write_bio_PKCS8PrivateKey(open_file(made.key_file).get(), party.key.get(),
                                  phrase.empty() ? nullptr : EVP_aes_256_cbc(), phrase.data(),
                                  static_cast<int>(phrase.size()), nullptr, nullptr);
    return made;
}

TlsMaterial make_in(const std::filesystem::path& folder) {
    const Party ca = make_party("Test CA", nullptr);
    const Party other_ca = make_party("Other CA", nullptr);
    return {.ca_file = store(folder / "ca", ca).cert_file,
            .server = store(folder / "server", make_party("Receiver.Test", &ca)),
            .client = store(folder / "client", make_party("Sender.Test", &ca)),
            .encrypted_client = store(folder / "encrypted", make_party("Sender.Test", &ca), kKeyPass),
            .expired_server = store(folder / "expired", make_party("Receiver.Test", &ca, -3)),
            .foreign_server = store(folder / "foreign", make_party("Receiver.Test", &other_ca)),
            .nul_name_server = store(folder / "nul_name", make_party("Receiver.Test\0evil"sv, &ca))};
}

} // namespace

const TlsMaterial& tls_material() {
    static const TemporaryFolder folder;
    static const TlsMaterial made = make_in(folder.path());
    return made;
}

} // namespace kvr::test
