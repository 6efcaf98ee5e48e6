#include "OrlinthHost/Chores.h"

#include "platform/Spawn.h"

#include <asio/post.hpp>

#include <utility>

namespace orlinth::host {

namespace {

Task<> nothing() {
    co_return;
}

} // namespace

void Chores::add(std::function<void()> chore) {
    asio::post(queue_, std::move(chore));
}

Task<> Chores::finish() {
    co_await platform::runOn(queue_, nothing());
}

} // namespace orlinth::host
