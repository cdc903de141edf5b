// libcurl, loaded when the process first needs it.
//
// Debian's libcurl pulls some thirty libraries in with it (TLS, Kerberos, LDAP, SSH, ...), and
// loading and relocating them costs a command far more than the command's own work. Most
// commands send nothing (a dry run, settings, the catalogue), so the binary does not link
// libcurl: the transport, and the URL parser for URLs outside its own simple form, reach it
// through this table, filled with dlopen and dlsym the first time one of them asks.
//
// Internal to platform/: only CurlTransport.cc and Url.cc include this header (and through it
// <curl/curl.h>, for the types and constants alone).
#pragma once

#include <curl/curl.h>

namespace lumora::curl {

// The libcurl functions this system calls, resolved once. Each member has the type of the
// function it stands for (decltype names the type without linking to the function).
struct Api {
  decltype(&curl_global_init) global_init;
  decltype(&curl_easy_init) easy_init;
  decltype(&curl_easy_setopt) easy_setopt;
  decltype(&curl_easy_pause) easy_pause;
  decltype(&curl_easy_strerror) easy_strerror;
  decltype(&curl_easy_getinfo) easy_getinfo;
  decltype(&curl_easy_cleanup) easy_cleanup;
  decltype(&curl_multi_init) multi_init;
  decltype(&curl_multi_add_handle) multi_add_handle;
  decltype(&curl_multi_remove_handle) multi_remove_handle;
  decltype(&curl_multi_perform) multi_perform;
  decltype(&curl_multi_info_read) multi_info_read;
  decltype(&curl_multi_poll) multi_poll;
  decltype(&curl_multi_wakeup) multi_wakeup;
  decltype(&curl_multi_cleanup) multi_cleanup;
  decltype(&curl_slist_append) slist_append;
  decltype(&curl_slist_free_all) slist_free_all;
  decltype(&curl_url) url;
  decltype(&curl_url_set) url_set;
  decltype(&curl_url_get) url_get;
  decltype(&curl_url_cleanup) url_cleanup;
  decltype(&curl_free) free;
};

// The library, loaded and initialised (curl_global_init) on the first call, from any thread.
// Throws TransportError, saying what is missing and what to install, when it cannot be loaded;
// every later call throws the same.
const Api& api();

}  // namespace lumora::curl
