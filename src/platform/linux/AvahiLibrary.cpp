#include "platform/linux/AvahiLibrary.h"

namespace orlinth::platform {

ORLINTH_NOTE_DLOPEN(avahiClient, ORLINTH_LIBAVAHI_CLIENT, "Finding devices to pair with by four digits");
ORLINTH_NOTE_DLOPEN(avahiCommon, ORLINTH_LIBAVAHI_COMMON, "Finding devices to pair with by four digits");

AvahiLibrary::AvahiLibrary() : client(ORLINTH_LIBAVAHI_CLIENT), common(ORLINTH_LIBAVAHI_COMMON) {}

const AvahiLibrary& avahi() {
    static const AvahiLibrary loaded;
    return loaded;
}

} // namespace orlinth::platform
