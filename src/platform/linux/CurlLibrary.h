#pragma once

#include "platform/linux/SharedLibrary.h"

#include <curl/curl.h>

namespace orlinth::platform {

/// What is used of libcurl.
struct CurlLibrary {
    CurlLibrary();

    detail::SharedLibrary library;

    ORLINTH_LIBRARY_FUNCTION(library, curl_easy_cleanup);
    ORLINTH_LIBRARY_FUNCTION(library, curl_easy_getinfo);
    ORLINTH_LIBRARY_FUNCTION(library, curl_easy_init);
    ORLINTH_LIBRARY_FUNCTION(library, curl_easy_setopt);
    ORLINTH_LIBRARY_FUNCTION(library, curl_easy_strerror);
    ORLINTH_LIBRARY_FUNCTION(library, curl_free);
    ORLINTH_LIBRARY_FUNCTION(library, curl_getdate);
    ORLINTH_LIBRARY_FUNCTION(library, curl_global_init);
    ORLINTH_LIBRARY_FUNCTION(library, curl_multi_add_handle);
    ORLINTH_LIBRARY_FUNCTION(library, curl_multi_cleanup);
    ORLINTH_LIBRARY_FUNCTION(library, curl_multi_info_read);
    ORLINTH_LIBRARY_FUNCTION(library, curl_multi_init);
    ORLINTH_LIBRARY_FUNCTION(library, curl_multi_remove_handle);
    ORLINTH_LIBRARY_FUNCTION(library, curl_multi_setopt);
    ORLINTH_LIBRARY_FUNCTION(library, curl_multi_socket_action);
    ORLINTH_LIBRARY_FUNCTION(library, curl_multi_strerror);
    ORLINTH_LIBRARY_FUNCTION(library, curl_slist_append);
    ORLINTH_LIBRARY_FUNCTION(library, curl_slist_free_all);
    ORLINTH_LIBRARY_FUNCTION(library, curl_url);
    ORLINTH_LIBRARY_FUNCTION(library, curl_url_cleanup);
    ORLINTH_LIBRARY_FUNCTION(library, curl_url_get);
    ORLINTH_LIBRARY_FUNCTION(library, curl_url_set);
    ORLINTH_LIBRARY_FUNCTION(library, curl_url_strerror);
};

/// Loads it at the first call. Any thread. @throws SystemError where it cannot be loaded, now and at every further call
[[nodiscard]] const CurlLibrary& curl();

} // namespace orlinth::platform
