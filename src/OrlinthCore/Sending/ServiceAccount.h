#pragma once

#include "base/Bytes.h"
#include "base/SecretBytes.h"

#include <string>

namespace orlinth {

/// The account of a push project, as its JSON key file gives it. Other keys of the file are ignored.
struct ServiceAccount {
    std::string project_id;
    SecretBytes private_key; ///< PEM text of an RSA key in PKCS#8
    std::string private_key_id;
    std::string client_email;
    std::string token_uri;

    /// @throws JsonError; its text quotes nothing of the file
    [[nodiscard]] static ServiceAccount fromJson(ByteView text);
};

/// Takes the DER bytes out of PEM text: everything but empty lines and the BEGIN and END lines, as Base64.
/// @throws FcmWake::Error::privateKeyImport
[[nodiscard]] SecretBytes pkcs8DER(ByteView pem);

/// Takes the PKCS#1 RSAPrivateKey out of a PKCS#8 PrivateKeyInfo (RFC 5208 §5): SEQUENCE { INTEGER version,
/// SEQUENCE algorithm, OCTET STRING key ... }. Only definite lengths (X.690 §8.1.3).
/// @throws FcmWake::Error::privateKeyImport: "expected tag 0x2 at 7", "truncated length at 3", "bad long-form length"
[[nodiscard]] SecretBytes unwrapPKCS8(ByteView der);

} // namespace orlinth
