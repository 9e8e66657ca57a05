#pragma once

#include <curl/curl.h>

namespace kelvo {

/// The functions of libcurl that the library calls, under curl's names without "curl_".
///
/// Static hosts, tools and tests link libcurl. The shared library loads it (`Curl::load`), because libcurl brings
/// thirty libraries, which a process that sends nothing does not need.
#define KELVO_CURL_FUNCTIONS(FUNCTION) \
  FUNCTION(easy_cleanup)               \
  FUNCTION(easy_getinfo)               \
  FUNCTION(easy_header)                \
  FUNCTION(easy_init)                  \
  FUNCTION(easy_setopt)                \
  FUNCTION(easy_strerror)              \
  FUNCTION(free)                       \
  FUNCTION(getdate)                    \
  FUNCTION(global_init)                \
  FUNCTION(global_init_mem)            \
  FUNCTION(multi_add_handle)           \
  FUNCTION(multi_cleanup)              \
  FUNCTION(multi_info_read)            \
  FUNCTION(multi_init)                 \
  FUNCTION(multi_perform)              \
  FUNCTION(multi_poll)                 \
  FUNCTION(multi_remove_handle)        \
  FUNCTION(multi_setopt)               \
  FUNCTION(multi_wakeup)               \
  FUNCTION(slist_append)               \
  FUNCTION(slist_free_all)             \
  FUNCTION(url)                        \
  FUNCTION(url_cleanup)                \
  FUNCTION(url_get)                    \
  FUNCTION(url_set)

struct Curl {
#define KELVO_DECLARE(name) decltype(&::curl_##name) name = nullptr;
  KELVO_CURL_FUNCTIONS(KELVO_DECLARE)
#undef KELVO_DECLARE

  /// Loads libcurl. Returns false if it is missing or lacks one of the functions; the first call then logs one ERROR
  /// line, and later calls do not try again. libcurl is never unloaded. Blocks on the disk and on the loader's lock.
  /// Thread-safe; called on network threads.
  [[nodiscard]] static bool load();

  /// Returns the address of a function of a library that libcurl uses, such as OpenSSL; nullptr if there is none. Call
  /// it only after `load` has returned true.
  [[nodiscard]] static void* functionBehind(const char* name) noexcept;
};

/// Returns the functions. The shared library may call them only after `Curl::load` has returned true.
[[nodiscard]] const Curl& curl() noexcept;

}  // namespace kelvo
