#pragma once

#include "platform/linux/SharedLibrary.h"

#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>
#define SD_JOURNAL_SUPPRESS_LOCATION // our fields say where an entry comes from
#include <systemd/sd-journal.h>

namespace orlinth::platform {

/// What is used of libsystemd: D-Bus, the journal, and what a service says to its manager.
struct SystemdLibrary {
    SystemdLibrary();

    detail::SharedLibrary library;

    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_add_fallback_vtable);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_add_filter);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_add_match_async);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_add_node_enumerator);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_add_object_manager);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_call_async);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_call_method_async);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_close_unref);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_emit_object_added);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_emit_object_removed);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_emit_properties_changed_strv);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_emit_signal);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_get_events);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_get_fd);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_get_n_queued_write);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_get_timeout);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_get_unique_name);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_is_open);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_is_ready);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_match_signal_async);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_append);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_append_basic);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_close_container);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_enter_container);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_exit_container);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_get_error);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_get_interface);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_get_member);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_get_path);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_get_sender);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_is_method_call);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_is_method_error);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_new_method_call);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_new_method_return);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_new_signal);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_open_container);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_peek_type);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_read);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_read_basic);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_ref);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_set_auto_start);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_skip);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_message_unref);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_new);
    /// A variable of the library, to which its tables of objects point.
    const unsigned* sd_bus_object_vtable_format = library.variable<const unsigned>("sd_bus_object_vtable_format");
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_open_system);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_process);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_ref);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_reply_method_errorf);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_reply_method_return);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_send);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_set_address);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_set_bus_client);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_set_method_call_timeout);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_slot_unref);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_start);
    ORLINTH_LIBRARY_FUNCTION(library, sd_bus_unref);
    ORLINTH_LIBRARY_FUNCTION(library, sd_journal_sendv);
    ORLINTH_LIBRARY_FUNCTION(library, sd_listen_fds);
    ORLINTH_LIBRARY_FUNCTION(library, sd_notify);
    ORLINTH_LIBRARY_FUNCTION(library, sd_notifyf);
    ORLINTH_LIBRARY_FUNCTION(library, sd_watchdog_enabled);
};

/// Loads it at the first call. Any thread. @throws SystemError where it cannot be loaded, now and at every further call
[[nodiscard]] const SystemdLibrary& systemd();

/// Whether it could be loaded. Any thread.
[[nodiscard]] bool hasSystemd() noexcept;

} // namespace orlinth::platform
