#include "OrlinthHost/Phones/LastPhone.h"

#include "base/Json.h"
#include "platform/WholeFile.h"

namespace orlinth::host {

namespace {

constexpr const char* lastPhoneKey = "peer_pubkey";
constexpr std::uint32_t lastPhonePermissions = 0600;

} // namespace

std::optional<PeerKey> LastPhone::load() const noexcept {
    try {
        const auto status = home_.system.files.status(file());
        if (!status || status->kind != platform::FileKind::regular) {
            return std::nullopt;
        }
        Bytes content(maxFileBytes);
        content.resize(home_.system.files.open(file(), platform::OpenMode::read)->read(content));
        PeerKey phone(requireString(parseJson(content), lastPhoneKey));
        return platform::PublicKey::fromBase64(phone.text()) ? std::optional(std::move(phone)) : std::nullopt;
    } catch (const std::exception&) {
        return std::nullopt; // it is learnt anew with the next file
    }
}

bool LastPhone::remember(const PeerKey& phone) noexcept {
    try {
        if (load() == phone) {
            return false;
        }
        const std::string text = prettyJson({{lastPhoneKey, phone.text()}});
        // of two at a time either is right, so no lock; and a power cut may take it
        platform::writeWholeFile(home_.system.files, file(), asBytes(text), lastPhonePermissions,
                                 platform::Flush::later);
        return true;
    } catch (const std::exception& error) {
        home_.system.log.write(platform::LogLevel::warning, "com.tarvinex.orlinth", "phones",
                               "cannot save which phone was sent to last: " + describe(error));
        return false;
    }
}

platform::Path LastPhone::file() const {
    return home_.dataDirectory() / fileName;
}

} // namespace orlinth::host
