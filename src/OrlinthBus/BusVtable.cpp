#include "OrlinthBus/BusVtable.h"

#include "platform/linux/SystemdLibrary.h"

#include <utility>

namespace orlinth::bus {

BusVtable::BusVtable(const BusInterface& interface, sd_bus_message_handler_t onCall, sd_bus_property_get_t onGet) {
    sd_bus_vtable start{};
    start.type = _SD_BUS_VTABLE_START;
    start.x.start.element_size = sizeof(sd_bus_vtable);
    start.x.start.features = _SD_BUS_VTABLE_PARAM_NAMES;
    start.x.start.vtable_format_reference = platform::systemd().sd_bus_object_vtable_format;
    entries_.push_back(start);
    for (const BusInterface::Method& method : interface.methods) {
        addMethod(method, onCall);
    }
    for (const BusInterface::Property& property : interface.properties) {
        addProperty(property, onGet);
    }
    for (const BusInterface::Signal& signal : interface.signals) {
        addSignal(signal);
    }
    sd_bus_vtable end{};
    end.type = _SD_BUS_VTABLE_END;
    entries_.push_back(end);
}

const char* BusVtable::keep(std::string text) {
    return texts_.emplace_back(std::move(text)).c_str();
}

void BusVtable::addMethod(const BusInterface::Method& method, sd_bus_message_handler_t onCall) {
    std::string in;
    std::string out;
    std::string names; // each with a zero behind it
    for (const BusInterface::Argument& argument : method.in) {
        in += argument.signature;
        names += argument.name + '\0';
    }
    for (const BusInterface::Argument& argument : method.out) {
        out += argument.signature;
        names += argument.name + '\0';
    }
    sd_bus_vtable entry{};
    entry.type = _SD_BUS_VTABLE_METHOD;
    entry.flags = SD_BUS_VTABLE_UNPRIVILEGED;
    entry.x.method.member = keep(method.name);
    entry.x.method.signature = keep(std::move(in));
    entry.x.method.result = keep(std::move(out));
    entry.x.method.handler = onCall;
    entry.x.method.names = keep(std::move(names));
    entries_.push_back(entry);
}

void BusVtable::addSignal(const BusInterface::Signal& signal) {
    std::string arguments;
    std::string names; // each with a zero behind it
    for (const BusInterface::Argument& argument : signal.arguments) {
        arguments += argument.signature;
        names += argument.name + '\0';
    }
    sd_bus_vtable entry{};
    entry.type = _SD_BUS_VTABLE_SIGNAL;
    entry.x.signal.member = keep(signal.name);
    entry.x.signal.signature = keep(std::move(arguments));
    entry.x.signal.names = keep(std::move(names));
    entries_.push_back(entry);
}

void BusVtable::addProperty(const BusInterface::Property& property, sd_bus_property_get_t onGet) {
    sd_bus_vtable entry{};
    entry.type = _SD_BUS_VTABLE_PROPERTY;
    entry.flags = property.isConstant ? SD_BUS_VTABLE_PROPERTY_CONST : SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE;
    entry.x.property.member = keep(property.name);
    entry.x.property.signature = keep(property.signature);
    entry.x.property.get = onGet;
    entries_.push_back(entry);
}

} // namespace orlinth::bus
