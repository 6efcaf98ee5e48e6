#include "platform/linux/CurlLibrary.h"

namespace orlinth::platform {

ORLINTH_NOTE_DLOPEN(wake, ORLINTH_LIBCURL, "Waking phones that sleep by a push");

CurlLibrary::CurlLibrary() : library(ORLINTH_LIBCURL) {}

const CurlLibrary& curl() {
    static const CurlLibrary loaded;
    return loaded;
}

} // namespace orlinth::platform
