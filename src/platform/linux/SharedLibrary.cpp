#include "platform/linux/SharedLibrary.h"

#include "platform/SystemError.h"

#include <dlfcn.h>
#include <string>

namespace orlinth::platform::detail {
namespace {

/// The dynamic linker's reason names the library that is missing, which may be one behind that which was asked for.
[[noreturn]] void throwLinkerError() {
    const char* const reason = ::dlerror();
    throw SystemError("cannot load " + std::string(reason != nullptr ? reason : "a library"));
}

} // namespace

SharedLibrary::SharedLibrary(const char* soname) : handle_(::dlopen(soname, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE)) {
    if (handle_ == nullptr) {
        throwLinkerError();
    }
}

void* SharedLibrary::address(const char* name) const {
    void* const found = ::dlsym(handle_, name);
    if (found == nullptr) {
        throwLinkerError();
    }
    return found;
}

} // namespace orlinth::platform::detail
