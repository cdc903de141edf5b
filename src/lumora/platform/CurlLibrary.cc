#include "lumora/platform/CurlLibrary.h"

#include <dlfcn.h>

#include <string>

#include "lumora/platform/Errors.h"

namespace lumora::curl {
namespace {

// The soname of Debian's libcurl4, the package the .deb depends on.
constexpr const char* kLibrary = "libcurl.so.4";

struct Loaded {
  Api api{};
  std::string failure;  // empty when api is complete
};

// Stores the address of `name` in `slot`; false when the library lacks it.
template <typename F>
bool resolve(void* library, const char* name, F& slot, std::string& failure) {
  void* address = dlsym(library, name);
  if (!address) {
    failure = std::string(kLibrary) + " has no " + name + " (libcurl 7.68 or later is needed)";
    return false;
  }
  slot = reinterpret_cast<F>(address);
  return true;
}

Loaded load() {
  Loaded out;
  // Never closed: handles and callbacks into it may live until the process ends. Bound lazily,
  // as in a program linked with libcurl: binding at once every symbol that libcurl's thirty or so
  // libraries import costs the command about 2.6 M instructions, for functions mostly never
  // called. The functions this table needs are looked up below all the same.
  void* library = dlopen(kLibrary, RTLD_LAZY | RTLD_LOCAL);
  if (!library) {
    const char* why = dlerror();
    out.failure = why ? why : kLibrary;
    return out;
  }
  Api& a = out.api;
  std::string& f = out.failure;
  const bool complete = resolve(library, "curl_global_init", a.global_init, f) &&
                        resolve(library, "curl_easy_init", a.easy_init, f) &&
                        resolve(library, "curl_easy_setopt", a.easy_setopt, f) &&
                        resolve(library, "curl_easy_pause", a.easy_pause, f) &&
                        resolve(library, "curl_easy_strerror", a.easy_strerror, f) &&
                        resolve(library, "curl_easy_getinfo", a.easy_getinfo, f) &&
                        resolve(library, "curl_easy_cleanup", a.easy_cleanup, f) &&
                        resolve(library, "curl_multi_init", a.multi_init, f) &&
                        resolve(library, "curl_multi_add_handle", a.multi_add_handle, f) &&
                        resolve(library, "curl_multi_remove_handle", a.multi_remove_handle, f) &&
                        resolve(library, "curl_multi_perform", a.multi_perform, f) &&
                        resolve(library, "curl_multi_info_read", a.multi_info_read, f) &&
                        resolve(library, "curl_multi_poll", a.multi_poll, f) &&
                        resolve(library, "curl_multi_wakeup", a.multi_wakeup, f) &&
                        resolve(library, "curl_multi_cleanup", a.multi_cleanup, f) &&
                        resolve(library, "curl_slist_append", a.slist_append, f) &&
                        resolve(library, "curl_slist_free_all", a.slist_free_all, f) &&
                        resolve(library, "curl_url", a.url, f) &&
                        resolve(library, "curl_url_set", a.url_set, f) &&
                        resolve(library, "curl_url_get", a.url_get, f) &&
                        resolve(library, "curl_url_cleanup", a.url_cleanup, f) &&
                        resolve(library, "curl_free", a.free, f);
  if (!complete) return out;
  // Once, before any handle exists and before a second thread can use the library.
  if (const CURLcode code = a.global_init(CURL_GLOBAL_DEFAULT); code != CURLE_OK)
    f = std::string("curl_global_init failed: ") + a.easy_strerror(code);
  return out;
}

}  // namespace

const Api& api() {
  // A function-local static is initialised once, and other threads wait for it.
  static const Loaded loaded = load();
  if (!loaded.failure.empty())
    throw TransportError(TransportError::Code::other, "The network library could not be loaded (" +
                                                          loaded.failure +
                                                          "). Install the package libcurl4.");
  return loaded.api;
}

}  // namespace lumora::curl
