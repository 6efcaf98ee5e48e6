#pragma once

#include "OrlinthHost/Service/OfferView.h"

#include <functional>
#include <optional>

namespace orlinth::host {

/// Asks the person at this computer whether to take a file. Called on the home's executor; no call throws.
class OfferAsker {
public:
    /// Takes the answer; nothing: it turns out that nobody could be asked. May be called at any time there, also when
    /// the question is over and when nobody is left who wants to know.
    using Answer = std::function<void(std::optional<bool> isAccepted)>;

    /// How a question that was asked came to its end otherwise than by an answer to the asker.
    enum class End {
        answered, ///< by a face
        expired,  ///< and was declined
        phoneGone
    };

    virtual ~OfferAsker() = default;

    /// Asks about this file. Returns whether there seems to be anybody who can be asked. The question before it is
    /// over.
    [[nodiscard]] virtual bool ask(const OfferView& offer, Answer answer) = 0;
    /// The question that was asked last is over.
    virtual void over(OfferNumber number, End end) = 0;
    /// A file was declined because nobody could be asked, and no face was there either.
    virtual void nobodyIsThere() = 0;
};

} // namespace orlinth::host
