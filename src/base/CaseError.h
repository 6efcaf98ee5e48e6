#pragma once

#include "base/Error.h"

#include <concepts>
#include <string>
#include <utility>

namespace orlinth {

/// What the error types of the components have in common: a case, its fixed text, and what the text quotes.
///
/// `Derived` has the enumeration `Case`, and makes its errors by functions of its own, one a case, so that the texts
/// are in one place:
///
///     class KeyError : public CaseError<KeyError> {
///     public:
///         enum class Case { unreadable };
///         [[nodiscard]] static KeyError unreadable(const std::string& why) {
///             return {Case::unreadable, "cannot read the key: ", why};
///         }
///
///     private:
///         KeyError(Case which, const std::string& prefix, const std::string& detail = {})
///             : CaseError(which, prefix, detail) {}
///     };
template <typename Derived>
class CaseError : public Error {
public:
    /// What a caller switches on.
    [[nodiscard]] auto which() const noexcept { return static_cast<typename Derived::Case>(case_); }
    /// What is behind the fixed prefix of the text; "" for a case that quotes nothing.
    [[nodiscard]] const std::string& detail() const noexcept { return detail_; }

protected:
    template <typename Case>
        requires std::same_as<Case, typename Derived::Case>
    explicit CaseError(Case which, const std::string& prefix, std::string detail = {})
        : Error(prefix + detail), case_(static_cast<int>(which)), detail_(std::move(detail)) {}

private:
    int case_;
    std::string detail_;
};

} // namespace orlinth
