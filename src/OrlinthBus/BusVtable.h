#pragma once

#include "OrlinthBus/BusObject.h"

#include <systemd/sd-bus.h>

#include <deque>
#include <string>
#include <vector>

namespace orlinth::bus {

/// An interface as sd-bus wants it: every method and every property is served by one function each. The library is
/// loaded when it is needed, so the tables of its macros, which name one of its variables, cannot be used.
///
/// Outlives every connection that has it.
class BusVtable {
public:
    BusVtable(const BusInterface& interface, sd_bus_message_handler_t onCall, sd_bus_property_get_t onGet);
    BusVtable(const BusVtable&) = delete;
    BusVtable& operator=(const BusVtable&) = delete;

    [[nodiscard]] const sd_bus_vtable* entries() const noexcept { return entries_.data(); }

private:
    [[nodiscard]] const char* keep(std::string text);
    void addMethod(const BusInterface::Method& method, sd_bus_message_handler_t onCall);
    void addSignal(const BusInterface::Signal& signal);
    void addProperty(const BusInterface::Property& property, sd_bus_property_get_t onGet);

    std::deque<std::string> texts_; ///< to which the entries point
    std::vector<sd_bus_vtable> entries_;
};

} // namespace orlinth::bus
