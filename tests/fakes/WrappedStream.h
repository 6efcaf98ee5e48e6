#pragma once

#include "platform/Network.h"

#include <memory>
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
    [[nodiscard]] Executor executor() const override { return inner_->executor(); }
    [[nodiscard]] std::string remoteEndpoint() const override { return inner_->remoteEndpoint(); }
    [[nodiscard]] std::string localAddress() const override { return inner_->localAddress(); }

protected:
    [[nodiscard]] platform::Stream& inner() noexcept { return *inner_; }

private:
    std::unique_ptr<platform::Stream> inner_;
};

} // namespace orlinth::fakes
