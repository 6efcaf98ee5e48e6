#include "FuzzSupport.h"
#include "base/Text.h"
#include "orlinth/Program/SettingsText.h"

#include <string>

/// Whatever the settings file holds, reading it yields values that a flag could be given, or a SettingsError that
/// can be shown.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orlinth;
    using namespace orlinth::cli;
    using fuzzing::demand;
    try {
        SettingsPlace last;
        for (const Setting& setting : readSettings(std::as_bytes(std::span(data, size)))) {
            demand(setting.isList || setting.values.size() == 1, "one value");
            demand(isUtf8(setting.fullName()), "a name in UTF-8");
            demand(setting.place.line >= last.line, "in order");
            last = setting.place;
            for (const Setting::Value& value : setting.values) {
                demand(isUtf8(value.text), "a value in UTF-8");
                demand(value.text.find('\0') == std::string::npos, "a value that is no shorter than it seems");
                demand(value.kind == Setting::Kind::text || !value.text.empty(), "a number has digits");
            }
        }
    } catch (const SettingsError& error) {
        const std::string text = error.description();
        demand(text.starts_with(", line ") || text.starts_with(": "), "what goes behind the file's name");
        demand(isUtf8(text) && !hasControlCharacter(text), "a text that can be shown");
    }
    return 0;
}
