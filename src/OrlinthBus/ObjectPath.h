#pragma once

#include "OrlinthHost/Service/TransferList.h"
#include "base/StrongText.h"

#include <string>

/// The names of the service's objects on the bus.
namespace orlinth::bus {

inline constexpr const char* serviceName = "com.tarvinex.orlinth1";
inline constexpr const char* rootPath = "/com/tarvinex/orlinth1";
inline constexpr const char* phonesPath = "/com/tarvinex/orlinth1/phones";
inline constexpr const char* batchesPath = "/com/tarvinex/orlinth1/batches";
inline constexpr const char* transfersPath = "/com/tarvinex/orlinth1/transfers";

/// The first 16 hexadecimal digits of the SHA-256 of the key, so that a phone's object keeps its name whatever the
/// phone is called.
[[nodiscard]] std::string pathOfPhone(const PeerKey& peerKey);
/// A batch is one object for each phone that it goes to: the id with "_" for "-", "_", and the phone's digits.
[[nodiscard]] std::string pathOfBatch(const BatchId& batch, const PeerKey& peerKey);
[[nodiscard]] std::string pathOfTransfer(host::TransferNumber number);

} // namespace orlinth::bus
