#pragma once

#include "platform/Network.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace orlinth::fakes {

/// A stream that hands everything on to another one: for tests that change, or look at, one of its calls.
class WrappedStream : public platform::Stream {
public:
    explicit WrappedStream(std::unique_ptr<platform::Stream> inner) : inner_(std::move(inner)) {}

    [[nodiscard]] Task<> writeAll(ByteView data) override { return inner_->writeAll(data); }
    [[nodiscard]] Task<std::size_t> readExact(MutableBytes into) override { return inner_->readExact(into); }
    void finishWriting() noexcept override { inner_->finishWriting(); }
    void cancel() noexcept override { inner_->cancel(); }
    void abort() noexcept override { inner_->abort(); }
    void resetOnClose(bool resets) noexcept override { inner_->resetOnClose(resets); }
    void setKeepAlive(const platform::KeepAlive& keepAlive) noexcept override { inner_->setKeepAlive(keepAlive); }
    [[nodiscard]] bool hasEnded() const noexcept override { return inner_->hasEnded(); }
    [[nodiscard]] Task<> untilEnded() override { return inner_->untilEnded(); }
    [[nodiscard]] std::optional<std::int64_t> unacknowledgedBytes() const noexcept override {
        return inner_->unacknowledgedBytes();
    }
    [[nodiscard]] Executor executor() const override { return inner_->executor(); }
    [[nodiscard]] std::string remoteEndpoint() const override { return inner_->remoteEndpoint(); }
    [[nodiscard]] std::string localAddress() const override { return inner_->localAddress(); }

protected:
    [[nodiscard]] platform::Stream& inner() noexcept { return *inner_; }

private:
    std::unique_ptr<platform::Stream> inner_;
};

} // namespace orlinth::fakes
