#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "fakes/TemporaryFolder.h"
#include "platform/Spawn.h"
#include "platform/linux/LinuxSystem.h"

#include <asio/io_context.hpp>
#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <thread>

namespace orlinth::fakes {

/// The receive service on real sockets, files and threads, on loopback and in a temporary folder.
class RealReceiver {
public:
    explicit RealReceiver(std::vector<platform::PublicKey> phones)
        : linuxSystem_(context_), system_(linuxSystem_.system()) {
        system_.directories = {.data = folder_ / "data", .config = folder_ / "config", .downloads = downloads()};
        std::filesystem::create_directories(downloads());
        receiver_.emplace(system_, key_, std::move(phones), downloads(), 0);
        receiver_->listener =
            system_.network.listen({.port = 0, .keepAlive = std::nullopt}, system_.queues.makeSerialQueue("test"));
        port_ = receiver_->listener->port();
    }
    RealReceiver(const RealReceiver&) = delete;
    RealReceiver& operator=(const RealReceiver&) = delete;
    ~RealReceiver() {
        if (thread_.joinable()) {
            stop();
        }
    }

    /// Runs it on a thread of its own, beside the workers'.
    void start() {
        platform::spawn(context_.get_executor(), receiver_->run(callbacks()),
                        [this](const std::exception_ptr& error) { ended_.set_value(error); });
        thread_ = std::thread([this] { context_.run(); });
    }
    /// Stops it and waits for its end.
    void stop() {
        receiver_->stop();
        std::future<std::exception_ptr> end = ended_.get_future();
        const bool inTime = end.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
        EXPECT_TRUE(inTime) << "the service does not end";
        if (inTime) {
            const std::exception_ptr error = end.get();
            EXPECT_FALSE(error) << describe(error);
        } else {
            context_.stop();
        }
        thread_.join();
    }

    [[nodiscard]] std::uint16_t port() const { return port_; }
    [[nodiscard]] platform::Path downloads() const { return folder_ / "Downloads"; }
    [[nodiscard]] Receiver& receiver() { return *receiver_; }
    [[nodiscard]] std::vector<Receiver::File> files() {
        const std::lock_guard guard(lock_);
        return files_;
    }
    /// Texts of the failures so far.
    [[nodiscard]] std::vector<std::string> failures() {
        const std::lock_guard guard(lock_);
        return failures_;
    }

private:
    Receiver::Callbacks callbacks() {
        Receiver::Callbacks told;
        told.onTransfer = [this](const Receiver::File& file) {
            const std::lock_guard guard(lock_);
            files_.push_back(file);
        };
        told.onError = [this](const Receiver::Failure& failure) {
            const std::lock_guard guard(lock_);
            failures_.push_back(describe(failure.error));
        };
        return told;
    }

    TemporaryFolder folder_;
    asio::io_context context_;
    platform::LinuxSystem linuxSystem_;
    platform::System system_;
    platform::PrivateKey key_ = platform::PrivateKey::generate();
    std::optional<Receiver> receiver_;
    std::uint16_t port_ = 0;
    std::promise<std::exception_ptr> ended_;
    std::thread thread_;
    std::mutex lock_; ///< guards the next two
    std::vector<Receiver::File> files_;
    std::vector<std::string> failures_;
};

} // namespace orlinth::fakes
