#include "FuzzSupport.h"
#include "OrlinthHost/Settings/SettingsFile.h"
#include "base/Text.h"

#include <string>

/// Whatever settings.json holds, reading it yields settings that pass their own checks and are the same after writing
/// and reading, or an error that can be shown.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orlinth;
    using namespace orlinth::host;
    using fuzzing::demand;
    const platform::Path home = "/home/ann";
    try {
        const SettingsFile::Content content = SettingsFile::decode(std::as_bytes(std::span(data, size)), home);
        const auto demandChecked = [&home](const SettingsFile::Values& values) {
            for (const auto& [id, value] : values) {
                demand(checkedSetting(ruleOf(id), value, home) == value, "a value that needs no further check");
            }
        };
        demandChecked(content.values);
        for (const auto& [key, values] : content.phones) {
            demand(!values.empty(), "a phone of which something is set");
            demandChecked(values);
        }
        if (!content.isOfLaterVersion) { // which nobody writes
            const SettingsFile::Content again = SettingsFile::decode(asBytes(SettingsFile::encode(content)), home);
            demand(again.values == content.values && again.phones == content.phones, "the same after writing");
        }
    } catch (const SettingsFileError& error) {
        const std::string text = error.description();
        demand(text.starts_with(": "), "what goes behind the file's name");
        demand(isUtf8(text) && !hasControlCharacter(text), "a text that can be shown");
    }
    return 0;
}
