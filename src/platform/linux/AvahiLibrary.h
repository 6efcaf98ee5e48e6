#pragma once

#include "platform/linux/SharedLibrary.h"

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-client/publish.h>
#include <avahi-common/error.h>
#include <avahi-common/simple-watch.h>
#include <avahi-common/strlst.h>
#include <avahi-common/timeval.h>

namespace orlinth::platform {

/// What is used of Avahi's client library and of the one that it has in common with the daemon.
struct AvahiLibrary {
    AvahiLibrary();

    detail::SharedLibrary client;
    detail::SharedLibrary common;

    ORLINTH_LIBRARY_FUNCTION(client, avahi_client_errno);
    ORLINTH_LIBRARY_FUNCTION(client, avahi_client_free);
    ORLINTH_LIBRARY_FUNCTION(client, avahi_client_new);
    ORLINTH_LIBRARY_FUNCTION(client, avahi_entry_group_add_service_strlst);
    ORLINTH_LIBRARY_FUNCTION(client, avahi_entry_group_commit);
    ORLINTH_LIBRARY_FUNCTION(client, avahi_entry_group_get_client);
    ORLINTH_LIBRARY_FUNCTION(client, avahi_entry_group_new);
    ORLINTH_LIBRARY_FUNCTION(client, avahi_entry_group_reset);
    ORLINTH_LIBRARY_FUNCTION(client, avahi_service_browser_get_client);
    ORLINTH_LIBRARY_FUNCTION(client, avahi_service_browser_new);
    ORLINTH_LIBRARY_FUNCTION(client, avahi_service_resolver_free);
    ORLINTH_LIBRARY_FUNCTION(client, avahi_service_resolver_new);

    ORLINTH_LIBRARY_FUNCTION(common, avahi_elapse_time);
    ORLINTH_LIBRARY_FUNCTION(common, avahi_simple_poll_free);
    ORLINTH_LIBRARY_FUNCTION(common, avahi_simple_poll_get);
    ORLINTH_LIBRARY_FUNCTION(common, avahi_simple_poll_iterate);
    ORLINTH_LIBRARY_FUNCTION(common, avahi_simple_poll_new);
    ORLINTH_LIBRARY_FUNCTION(common, avahi_strerror);
    ORLINTH_LIBRARY_FUNCTION(common, avahi_string_list_add_arbitrary);
    ORLINTH_LIBRARY_FUNCTION(common, avahi_string_list_free);
};

/// Loads them at the first call. Any thread. @throws SystemError where they cannot be loaded, now and at every further
/// call
[[nodiscard]] const AvahiLibrary& avahi();

} // namespace orlinth::platform
