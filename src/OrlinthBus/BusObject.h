#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace orlinth::bus {

/// The path of an object, "o".
struct ObjectPath {
    std::string text;
    friend bool operator==(const ObjectPath&, const ObjectPath&) = default;
};

/// A problem and what to do about it, "(ss)"; both empty if there is none.
struct ProblemText {
    std::string text;
    std::string hint;
    friend bool operator==(const ProblemText&, const ProblemText&) = default;
};

/// Values by their names, "a{sv}", each "s", "b" or "t".
using BusDictionary = std::map<std::string, std::variant<std::string, bool, std::uint64_t>>;

/// The value of a property: "s", "b", "q", "u", "t", "o", "(ss)", "as", "a{sv}".
using BusValue = std::variant<std::string, bool, std::uint16_t, std::uint32_t, std::uint64_t, ObjectPath, ProblemText,
                              std::vector<std::string>, BusDictionary>;

/// What D-Bus calls the value's type.
[[nodiscard]] const char* signatureOf(const BusValue& value) noexcept;

/// An object on the bus: it has one interface of ours.
struct BusObject {
    std::string interface;
    std::map<std::string, BusValue> properties;
    friend bool operator==(const BusObject&, const BusObject&) = default;
};

/// All objects, by their paths.
using BusObjects = std::map<std::string, BusObject>;

/// An interface, as introspection tells of it.
struct BusInterface {
    struct Property {
        std::string name;
        std::string signature;
        bool isConstant = false;
    };
    struct Argument {
        std::string name;
        std::string signature;
    };
    struct Method {
        std::string name;
        std::vector<Argument> in = {};
        std::vector<Argument> out = {};
    };

    struct Signal {
        std::string name;
        std::vector<Argument> arguments = {};
    };

    std::string name;
    std::vector<Method> methods;
    std::vector<Property> properties;
    std::vector<Signal> signals = {};
};

} // namespace orlinth::bus
