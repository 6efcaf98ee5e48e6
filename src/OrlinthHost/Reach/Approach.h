#pragma once

#include "OrlinthHost/Reach/Finder.h"
#include "base/OneShot.h"
#include "platform/Deadline.h"

#include <asio/experimental/awaitable_operators.hpp>

#include <exception>
#include <functional>
#include <memory>
#include <utility>

namespace orlinth::host {

/// Reaches one phone at the address of its record, and beside that looks for it elsewhere.
///
///     attempt at the recorded address ─────────────────────────▶ the phone has proved its key there
///        │ beside it, a search ── found elsewhere ──┐
///        │                                          ▼
///        └── fails, or has no connection yet ──▶ recorded ──▶ attempt at the new address, once
///
/// The search neither replaces nor shortens the attempt: it calls it off only when it has found the phone, and only
/// while the attempt has no connection. An attempt that fails first waits until the search has nothing left to try, and
/// then fails as it would have without one. A device that refuses the connection and has the phone's hardware address
/// is the phone itself, which sleeps: then nothing is looked for until it is woken.
///
/// The attempt tells how far it is by the calls below, on the home's executor. One run() at a time.
class Approach {
public:
    /// Without a finder there is no search. `finder` and `onMoved` outlive this; `onMoved`, which may be empty, gets
    /// the record with the new address before the attempt there begins.
    Approach(Finder* finder, PeerRecord phone, MaySweep maySweep, std::function<void(const PeerRecord&)> onMoved);

    /// Ends the search, if a run that was cancelled has left one.
    void abandon() noexcept { search_.reset(); }

    /// The first attempt to connect has failed.
    void onUnreached(const std::exception& error);
    void onConnected();
    void onWaking();
    /// The phone has proved its key.
    void onProved();

    /// With the address that is tried now. An IPv6 address in it is never recorded.
    [[nodiscard]] const PeerRecord& phone() const noexcept { return phone_; }

    /// Makes an attempt with phone(), and perhaps another one; returns what it returns, or throws what it throws.
    /// `attempt` may be called again at once after what it has returned was cancelled.
    template <typename T>
    [[nodiscard]] Task<T> run(std::function<Task<T>()> attempt) {
        using namespace asio::experimental::awaitable_operators;
        for (;;) {
            begin();
            OneShot<T> outcome;
            Task<> work = platform::settle(outcome, attempt());
            if (search_) {
                Task<> call = untilCalledOff();
                co_await (std::move(work) || std::move(call));
            } else {
                co_await std::move(work);
            }
            std::exception_ptr error;
            try {
                T result = outcome.take();
                end(false);
                co_return result;
            } catch (...) {
                error = std::current_exception();
            }
            const asio::cancellation_state state = co_await asio::this_coro::cancellation_state;
            const bool isCancelled = state.cancelled() != asio::cancellation_type::none;
            if (!isCancelled) {
                co_await untilSearched(error);
            }
            const bool hasMoved = !isCancelled && move();
            if (!hasMoved) {
                end(!isCancelled);
                std::rethrow_exception(error);
            }
        }
    }

private:
    void begin();
    [[nodiscard]] Task<> untilCalledOff();
    /// After the attempt has failed with this error.
    [[nodiscard]] Task<> untilSearched(std::exception_ptr error);
    /// To where it was found; false if it was not.
    [[nodiscard]] bool move();
    void end(bool hasFailed);

    Finder* finder_;
    PeerRecord phone_;
    MaySweep maySweep_;
    std::function<void(const PeerRecord&)> onMoved_;
    std::unique_ptr<Finder::Search> search_;
    bool mayMove_ = true; ///< not a second time
    bool isConnected_ = false;
    bool isProved_ = false;
    bool isAsleep_ = false; ///< it is at its address, and refuses
};

} // namespace orlinth::host
