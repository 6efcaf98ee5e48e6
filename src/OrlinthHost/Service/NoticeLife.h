#pragma once

#include <memory>
#include <utility>

namespace orlinth::host {

/// The time in which the desktop's answers still reach an object: what it shows may stay, and be clicked, when it has
/// stopped or is gone. A member of that object.
///
/// Threading: on the executor of that object.
class NoticeLife {
public:
    NoticeLife() = default;
    NoticeLife(const NoticeLife&) = delete;
    NoticeLife& operator=(const NoticeLife&) = delete;
    ~NoticeLife() = default;

    /// `call`, which may refer to the object, as something that does nothing once this has ended.
    template <typename Call>
    [[nodiscard]] auto guarding(Call call) const {
        return [weak = std::weak_ptr<const int>(life_), call = std::move(call)](const auto&... arguments) {
            if (!weak.expired()) {
                call(arguments...);
            }
        };
    }
    /// Nothing gets through any more.
    void end() noexcept { life_.reset(); }

private:
    std::shared_ptr<const int> life_ = std::make_shared<const int>(0);
};

} // namespace orlinth::host
