#include "platform/linux/LinuxNetworkNews.h"

#include "platform/SystemError.h"
#include "platform/linux/NetlinkSocket.h"

#include <asio/posix/stream_descriptor.hpp>

#include <linux/rtnetlink.h>
#include <utility>

namespace orlinth::platform {
namespace {

/// Datagrams that are taken before others have their turn.
constexpr int maxNewsAtOnce = 64;

/// The inside of a watch. The wait that is under way finds it gone once the watch has ended.
class NewsReader : public std::enable_shared_from_this<NewsReader> {
public:
    NewsReader(const Executor& executor, std::function<void()> onChange)
        : onChange_(std::move(onChange)),
          socket_(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE),
          wait_(executor) {
        socket_.lendTo(wait_);
    }

    void awaitNews() {
        wait_.async_wait(asio::posix::stream_descriptor::wait_read, [weak = weak_from_this()](std::error_code code) {
            const std::shared_ptr<NewsReader> self = weak.lock();
            if (self && !code) {
                const bool isNews = self->take();
                self->awaitNews();
                if (isNews) {
                    self->onChange_();
                }
            }
        });
    }

private:
    /// Takes what the kernel has to tell; returns whether there was anything.
    bool take() {
        bool isNews = false;
        for (int reads = 0; reads < maxNewsAtOnce; ++reads) {
            try {
                if (!socket_.receive()) {
                    break;
                }
                isNews = true;
            } catch (const SystemError&) { // ENOBUFS: some are lost
                isNews = true;
            }
        }
        return isNews;
    }

    const std::function<void()> onChange_;
    NetlinkSocket socket_;
    asio::posix::stream_descriptor wait_; ///< for the socket
};

class LinuxNetworkWatch final : public NetworkWatch {
public:
    LinuxNetworkWatch(const Executor& executor, std::function<void()> onChange)
        : reader_(std::make_shared<NewsReader>(executor, std::move(onChange))) {
        reader_->awaitNews();
    }

private:
    std::shared_ptr<NewsReader> reader_; ///< a call that is under way holds it too
};

} // namespace

std::unique_ptr<NetworkWatch> LinuxNetworkNews::watch(Executor executor, std::function<void()> onChange) {
    try {
        return std::make_unique<LinuxNetworkWatch>(executor, std::move(onChange));
    } catch (const asio::system_error& error) { // no descriptors left for Asio itself
        throw SystemError(error.code());
    }
}

} // namespace orlinth::platform
