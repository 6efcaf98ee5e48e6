#include "OrlinthBus/BusTree.h"

#include "OrlinthBus/ObjectPath.h"
#include "base/Overloaded.h"
#include "platform/SystemError.h"
#include "platform/linux/SystemdLibrary.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string_view>
#include <utility>

namespace orlinth::bus {

namespace {

using platform::systemd;

int appendBasic(sd_bus_message* message, const std::string& text) {
    return systemd().sd_bus_message_append_basic(message, 's', text.c_str());
}
int appendBasic(sd_bus_message* message, bool flag) {
    const int wide = flag ? 1 : 0;
    return systemd().sd_bus_message_append_basic(message, 'b', &wide);
}
int appendBasic(sd_bus_message* message, std::uint64_t number) {
    return systemd().sd_bus_message_append_basic(message, 't', &number);
}

const char* signatureOf(const std::string&) noexcept {
    return "s";
}
const char* signatureOf(bool) noexcept {
    return "b";
}
const char* signatureOf(std::uint64_t) noexcept {
    return "t";
}

/// Opens a container, appends what is in it, and closes it. Negative if the library refuses.
template <typename Content>
int appendIn(sd_bus_message* message, char type, const char* signature, Content content) {
    int result = systemd().sd_bus_message_open_container(message, type, signature);
    if (result >= 0) {
        result = content();
    }
    return result < 0 ? result : systemd().sd_bus_message_close_container(message);
}

int appendTexts(sd_bus_message* message, const std::vector<std::string>& texts) {
    return appendIn(message, 'a', "s", [&] {
        int result = 0;
        for (auto text = texts.begin(); text != texts.end() && result >= 0; ++text) {
            result = appendBasic(message, *text);
        }
        return result;
    });
}

int appendDictionary(sd_bus_message* message, const BusDictionary& dictionary) {
    const auto appendEntry = [message](const BusDictionary::value_type& entry) {
        const int named = appendBasic(message, entry.first);
        const auto appendValue = [message](const auto& value) {
            return appendIn(message, 'v', signatureOf(value), [&] { return appendBasic(message, value); });
        };
        return named < 0 ? named : std::visit(appendValue, entry.second);
    };
    return appendIn(message, 'a', "{sv}", [&] {
        int result = 0;
        for (auto entry = dictionary.begin(); entry != dictionary.end() && result >= 0; ++entry) {
            result = appendIn(message, 'e', "sv", [&] { return appendEntry(*entry); });
        }
        return result;
    });
}

/// Appends a value; negative if the library refuses.
int append(sd_bus_message* message, const BusValue& value) {
    return std::visit(
        Overloaded{
            [message](const std::string& text) { return appendBasic(message, text); },
            [message](bool flag) { return appendBasic(message, flag); },
            [message](std::uint16_t number) { return systemd().sd_bus_message_append_basic(message, 'q', &number); },
            [message](std::uint32_t number) { return systemd().sd_bus_message_append_basic(message, 'u', &number); },
            [message](std::uint64_t number) { return appendBasic(message, number); },
            [message](const std::vector<std::string>& texts) { return appendTexts(message, texts); },
            [message](const BusDictionary& dictionary) { return appendDictionary(message, dictionary); },
            [message](const ObjectPath& path) {
                return systemd().sd_bus_message_append_basic(message, 'o', path.text.c_str());
            },
            [message](const ProblemText& problem) {
                return systemd().sd_bus_message_append(message, "(ss)", problem.text.c_str(), problem.hint.c_str());
            }},
        value);
}

/// A list as the library takes it over: every text and the list itself from malloc(). Null if there is no memory.
char** listOf(const std::vector<std::string>& texts) {
    auto** const list = static_cast<char**>(std::calloc(texts.size() + 1, sizeof(char*)));
    for (std::size_t i = 0; list != nullptr && i < texts.size(); ++i) {
        list[i] = strdup(texts[i].c_str());
        if (list[i] == nullptr) {
            for (std::size_t j = 0; j < i; ++j) {
                std::free(list[j]);
            }
            std::free(list);
            return nullptr;
        }
    }
    return list;
}

bool isBelow(const std::string& path, const std::string& parent) {
    return path.size() > parent.size() && path.starts_with(parent) && path[parent.size()] == '/';
}

} // namespace

const char* signatureOf(const BusValue& value) noexcept {
    return std::visit(
        Overloaded{[](const std::string&) { return "s"; }, [](bool) { return "b"; }, [](std::uint16_t) { return "q"; },
                   [](std::uint32_t) { return "u"; }, [](std::uint64_t) { return "t"; },
                   [](const ObjectPath&) { return "o"; }, [](const ProblemText&) { return "(ss)"; },
                   [](const std::vector<std::string>&) { return "as"; }, [](const BusDictionary&) { return "a{sv}"; }},
        value);
}

// The tree

struct BusTree::Interface {
    Interface(const BusInterface& what, sd_bus_message_handler_t onCallOf, sd_bus_property_get_t onGetOf)
        : name(what.name), vtable(what, onCallOf, onGetOf) {}

    std::string name;
    BusVtable vtable;
};

BusTree::BusTree(std::vector<BusInterface> interfaces, std::vector<std::string> managers,
                 std::function<void(BusCall)> onCallOf)
    : described_(std::move(interfaces)), managers_(std::move(managers)), onCall_(std::move(onCallOf)) {}

BusTree::~BusTree() {
    detach();
}

bool BusTree::attach(platform::BusLoop& loop) {
    for (const BusInterface& interface : std::exchange(described_, {})) { // the library is there by now
        interfaces_.emplace_back(interface, onCall, onGet);
    }
    loop_ = &loop;
    bool isGood = true;
    const auto add = [this, &isGood](auto call) {
        sd_bus_slot* slot = nullptr;
        isGood = isGood && call(&slot) >= 0;
        slots_.emplace_back(slot);
    };
    for (const Interface& interface : interfaces_) {
        add([&](sd_bus_slot** slot) {
            return systemd().sd_bus_add_fallback_vtable(loop.get(), slot, rootPath, interface.name.c_str(),
                                                        interface.vtable.entries(), onFind, this);
        });
    }
    add([&](sd_bus_slot** slot) { return systemd().sd_bus_add_object_manager(loop.get(), slot, rootPath); });
    for (const std::string& manager : managers_) {
        add([&](sd_bus_slot** slot) {
            return systemd().sd_bus_add_node_enumerator(loop.get(), slot, manager.c_str(), onList, this);
        });
    }
    return isGood;
}

void BusTree::detach() noexcept {
    slots_.clear();
    loop_ = nullptr;
}

BusTree::Told BusTree::update(const BusObjects& objects, std::size_t mostSignals) {
    std::vector<std::pair<std::uint64_t, std::string>> different; // when it was told of last, and its path
    for (const auto& [path, object] : objects) {
        const auto before = told_.find(path);
        if (before == told_.end() || before->second != object) {
            different.emplace_back(lastTold(path), path);
        }
    }
    for (const auto& [path, object] : told_) {
        if (!objects.contains(path)) {
            different.emplace_back(lastTold(path), path);
        }
    }
    std::ranges::sort(different);
    const std::size_t count = loop_ == nullptr ? different.size() : std::min(mostSignals, different.size());
    for (std::size_t i = 0; i < count; ++i) {
        const std::string& path = different[i].second;
        const auto after = objects.find(path);
        const auto before = told_.find(path);
        tellChange(path, before != told_.end() ? &before->second : nullptr,
                   after != objects.end() ? &after->second : nullptr);
    }
    if (loop_ != nullptr) {
        loop_->wake();
    }
    return {.signals = count, .isEverything = count == different.size()};
}

std::uint64_t BusTree::lastTold(const std::string& path) const {
    const auto at = toldAt_.find(path);
    return at != toldAt_.end() ? at->second : 0;
}

/// The library asks for the values while it makes the signal, so what it finds must be there then.
void BusTree::tellChange(const std::string& path, const BusObject* before, const BusObject* after) {
    sd_bus* const bus = loop_ != nullptr ? loop_->get() : nullptr;
    const auto tell = [bus](auto call) {
        if (bus != nullptr) {
            static_cast<void>(call()); // a connection that is broken is opened anew, and everything is told again
        }
    };
    toldAt_[path] = ++signals_;
    if (after == nullptr) {
        tell([&] { return systemd().sd_bus_emit_object_removed(bus, path.c_str()); });
        told_.erase(path);
        toldAt_.erase(path);
        return;
    }
    if (before == nullptr) {
        told_[path] = *after;
        tell([&] { return systemd().sd_bus_emit_object_added(bus, path.c_str()); });
        return;
    }
    std::vector<std::string> changed;
    for (const auto& [name, value] : after->properties) {
        const auto old = before->properties.find(name);
        if (old == before->properties.end() || old->second != value) {
            changed.push_back(name);
        }
    }
    const std::string interface = after->interface;
    told_[path] = *after;
    std::vector<char*> names;
    for (std::string& name : changed) {
        names.push_back(name.data());
    }
    names.push_back(nullptr);
    tell([&] {
        return systemd().sd_bus_emit_properties_changed_strv(bus, path.c_str(), interface.c_str(), names.data());
    });
}

// What the library asks. An exception must not get into its frames.

int BusTree::onCall(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
    try {
        static_cast<BusTree*>(self)->onCall_(BusCall(message));
    } catch (const std::exception&) {
        return 1; // the call has answered for itself when it went
    }
    return 1;
}

int BusTree::onGet(sd_bus* /*bus*/, const char* path, const char* /*interface*/, const char* property,
                   sd_bus_message* reply, void* self, sd_bus_error* /*error*/) {
    try {
        const BusObjects& objects = static_cast<BusTree*>(self)->told_;
        const auto object = objects.find(path);
        if (object == objects.end()) {
            return -ENOENT;
        }
        const auto value = object->second.properties.find(property);
        return value != object->second.properties.end() ? append(reply, value->second) : -ENOENT;
    } catch (const std::exception&) {
        return -ENOMEM;
    }
}

int BusTree::onFind(sd_bus* /*bus*/, const char* path, const char* interface, void* self, void** found,
                    sd_bus_error* /*error*/) {
    try {
        const BusObjects& objects = static_cast<BusTree*>(self)->told_;
        const auto object = objects.find(path);
        if (object == objects.end() || object->second.interface != interface) {
            return 0;
        }
        *found = self;
        return 1;
    } catch (const std::exception&) {
        return -ENOMEM;
    }
}

int BusTree::onList(sd_bus* /*bus*/, const char* prefix, void* self, char*** nodes, sd_bus_error* /*error*/) {
    try {
        std::vector<std::string> paths;
        for (const auto& [path, object] : static_cast<BusTree*>(self)->told_) {
            if (isBelow(path, prefix)) {
                paths.push_back(path);
            }
        }
        *nodes = listOf(paths);
        return *nodes != nullptr ? 0 : -ENOMEM;
    } catch (const std::exception&) {
        return -ENOMEM;
    }
}

} // namespace orlinth::bus
