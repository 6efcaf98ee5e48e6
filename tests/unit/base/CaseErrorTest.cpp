#include "base/CaseError.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace orlinth {
namespace {

class KeyError : public CaseError<KeyError> {
public:
    enum class Case { missing, unreadable };

    [[nodiscard]] static KeyError missing() { return {Case::missing, "there is no key"}; }
    [[nodiscard]] static KeyError unreadable(const std::string& why) {
        return {Case::unreadable, "cannot read the key: ", why};
    }

private:
    KeyError(Case which, const std::string& prefix, const std::string& detail = {})
        : CaseError(which, prefix, detail) {}
};

static_assert(std::is_same_v<decltype(KeyError::missing().which()), KeyError::Case>);
static_assert(!std::is_constructible_v<CaseError<KeyError>, KeyError::Case, std::string>,
              "only a component makes its errors, in the texts that it has fixed");

TEST(CaseError, HasItsCaseItsFixedTextAndWhatThatQuotes) {
    const KeyError error = KeyError::unreadable("Permission denied");
    EXPECT_EQ(error.which(), KeyError::Case::unreadable);
    EXPECT_EQ(error.description(), "cannot read the key: Permission denied");
    EXPECT_EQ(error.detail(), "Permission denied");
}

TEST(CaseError, QuotesNothingWithoutADetail) {
    const KeyError error = KeyError::missing();
    EXPECT_EQ(error.which(), KeyError::Case::missing);
    EXPECT_EQ(error.description(), "there is no key");
    EXPECT_EQ(error.detail(), "");
}

TEST(CaseError, IsCaughtAsAnyError) {
    try {
        throw KeyError::missing();
    } catch (const Error& error) {
        EXPECT_STREQ(error.what(), "there is no key");
    }
}

} // namespace
} // namespace orlinth
