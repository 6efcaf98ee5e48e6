#pragma once

#include <exception>
#include <string>
#include <utility>

namespace orlinth {

/// The base of every component's error type: a text for people, fixed by the component.
///
/// Callers that decide switch on the case of the concrete type; description() is what a person reads.
class Error : public std::exception {
public:
    [[nodiscard]] const std::string& description() const noexcept { return description_; }
    [[nodiscard]] const char* what() const noexcept override { return description_.c_str(); }

protected:
    explicit Error(std::string description) : description_(std::move(description)) {}

private:
    std::string description_;
};

/// The text of any exception; what an outer error quotes of an inner one.
[[nodiscard]] inline std::string describe(const std::exception& error) {
    return error.what();
}

/// The same for an exception that is held as a value.
[[nodiscard]] inline std::string describe(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& caught) {
        return describe(caught);
    } catch (...) {
        return "unknown error";
    }
}

} // namespace orlinth
