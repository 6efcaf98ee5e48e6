#include "OrlinthHost/Reach/Refusal.h"

#include "OrlinthCore/Sending/SendError.h"

namespace orlinth::host {

bool isRefusal(const std::exception& error) {
    const auto* const failure = dynamic_cast<const SendError*>(&error);
    return failure != nullptr && (failure->reason() == SendError::Reason::refused || isRefusal(failure->cause()));
}

bool isRefusal(const std::exception_ptr& error) {
    try {
        if (error) {
            std::rethrow_exception(error);
        }
    } catch (const std::exception& failure) {
        return isRefusal(failure);
    } catch (...) {
        return false;
    }
    return false;
}

} // namespace orlinth::host
