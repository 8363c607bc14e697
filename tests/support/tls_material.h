// SPDX-License-Identifier: MIT
// Keys and certificates for tests, made at run time as PEM files in a private folder that ends with the process.
#pragma once

#include <string>

namespace kvr::test {

/// A certificate with its key; both are paths of PEM files.
struct TlsIdentity {
    std::string cert_file;
    std::string key_file;
};

/// The pass phrase of `encrypted_client`.
inline constexpr char kKeyPass[] = "open sesame";

struct TlsMaterial {
    std::string ca_file; ///< the CA that signed everything below unless said otherwise
    TlsIdentity server;  ///< common name "Receiver.Test"
    TlsIdentity client;
    TlsIdentity encrypted_client; ///< its key needs kKeyPass
    TlsIdentity expired_server;
    TlsIdentity foreign_server;  ///< of another CA
    TlsIdentity nul_name_server; ///< common name "Receiver.Test", a NUL, "evil"
};

/// Made at the first call.
const TlsMaterial& tls_material();

} // namespace kvr::test
