#pragma once

#include "base/Error.h"

#include <string>
#include <utility>

namespace orlinth::host {

/// A failure that the host itself has found, with what the person can do about it.
class HostError : public Error {
public:
    explicit HostError(std::string text, std::string hint = {}) : Error(std::move(text)), hint_(std::move(hint)) {}
    [[nodiscard]] const std::string& hint() const noexcept { return hint_; }

private:
    std::string hint_;
};

} // namespace orlinth::host
