#pragma once

#include <string>

namespace orlinth::fakes {

/// A fresh RSA key of 2048 bits, as texts.
struct TestRsaKey {
    std::string privatePem; ///< PKCS#8
    std::string publicPem;

    /// Made once a process: it takes a moment.
    [[nodiscard]] static const TestRsaKey& shared();
    /// Whether `signature` is this key's, RS256 over `data`.
    [[nodiscard]] bool verifies(const std::string& data, const std::string& signature) const;
};

/// A service account's key file with this key.
[[nodiscard]] std::string serviceAccountJson(const TestRsaKey& key,
                                             const std::string& tokenUri = "https://oauth.example/token");

} // namespace orlinth::fakes
