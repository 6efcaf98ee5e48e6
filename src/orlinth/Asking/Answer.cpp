#include "orlinth/Asking/Answer.h"

#include "base/Text.h"

namespace orlinth::cli {

bool Answer::isYes(std::string_view line) {
    const std::string answer = lowerCased(trimmed(line));
    return answer == "y" || answer == "yes";
}

} // namespace orlinth::cli
