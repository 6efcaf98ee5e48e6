#pragma once

#include <cstddef>
#include <cstdint>

/// Libraries that most runs do without. They are loaded when something first needs them, so that a program which only
/// sends a file does not start with fifty libraries behind it (docs/performance.md).
///
/// For each such library there is a table of the functions that are used here, typed by the library's own header:
/// CurlLibrary.h, AvahiLibrary.h, SystemdLibrary.h. The build takes the name that is loaded from the library which
/// belongs to that header.
namespace orlinth::platform::detail {

/// A library in this process. It stays until the program ends, and so do its functions. Any thread.
class SharedLibrary {
public:
    /// @throws SystemError with the dynamic linker's reason
    explicit SharedLibrary(const char* soname);

    /// @throws SystemError if the library has no such function
    template <typename Function>
    [[nodiscard]] Function* function(const char* name) const {
        return reinterpret_cast<Function*>(address(name));
    }

    /// @throws SystemError if the library has no such variable
    template <typename Variable>
    [[nodiscard]] Variable* variable(const char* name) const {
        return static_cast<Variable*>(address(name));
    }

private:
    [[nodiscard]] void* address(const char* name) const;

    void* handle_;
};

/// An entry of the program's note about libraries that it loads by name, from which packagers' tools take its
/// dependencies (https://uapi-group.org/specifications/specs/elf_dlopen_metadata/).
template <std::size_t textBytes>
struct alignas(4) DlopenNote {
    explicit consteval DlopenNote(const char (&json)[textBytes]) {
        for (std::size_t i = 0; i < textBytes; ++i) {
            text[i] = json[i];
        }
    }

    std::uint32_t ownerSize = sizeof owner;
    std::uint32_t textSize = textBytes;
    std::uint32_t type = 0x407C'0C0A;
    char owner[4] = {'F', 'D', 'O', '\0'};
    char text[textBytes]{};
};

} // namespace orlinth::platform::detail

/// Notes that the program loads `soname` for `description`, without which it still does its other work.
#define ORLINTH_NOTE_DLOPEN(feature, soname, description)                                                              \
    [[gnu::section(".note.dlopen"), gnu::used]] constexpr ::orlinth::platform::detail::DlopenNote feature##DlopenNote( \
        "[{\"feature\":\"" #feature "\",\"description\":\"" description                                                \
        "\",\"priority\":\"recommended\",\"soname\":[\"" soname "\"]}]")

/// A member of a table: the function `name` of a C library, to be called as its header says.
// NOLINTNEXTLINE(bugprone-macro-parentheses): it is a declaration
#define ORLINTH_LIBRARY_FUNCTION(library, name) decltype(::name)* name = (library).function<decltype(::name)>(#name)
