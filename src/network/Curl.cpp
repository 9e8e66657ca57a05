#include "network/Curl.h"

#include <dlfcn.h>

#include "util/KLVLogger.h"

namespace kelvo {

#ifdef KELVO_LIBCURL  // the file name of the libcurl that is loaded at the first request

namespace {

Curl functions;
void* library = nullptr;

/// Looks one function up. Only libcurl and its own libraries are searched: a function of the host with the same name
/// does not count.
template <class Function>
bool find(Function& function, const char* name) {
  function = reinterpret_cast<Function>(::dlsym(library, name));
  return function != nullptr;
}

/// RTLD_NOW: a library that lacks a function counts as missing now, and does not end the process later. RTLD_LOCAL: the
/// host's and its plug-ins' symbols stay as they are.
bool loadOnce() {
  library = ::dlopen(KELVO_LIBCURL, RTLD_NOW | RTLD_LOCAL);
#define KELVO_FIND(name) &&find(functions.name, "curl_" #name)
  if (library != nullptr KELVO_CURL_FUNCTIONS(KELVO_FIND)) return true;
#undef KELVO_FIND
  const char* const reason = ::dlerror();
  KLV_ERROR("Nothing can be sent, and events are kept: {}", reason != nullptr ? reason : KELVO_LIBCURL);
  return false;
}

}  // namespace

bool Curl::load() {
  static const bool isLoaded = loadOnce();
  return isLoaded;
}

void* Curl::functionBehind(const char* name) noexcept {
  return ::dlsym(library, name);
}

const Curl& curl() noexcept {
  return functions;
}

#else

bool Curl::load() {
  return true;
}

void* Curl::functionBehind(const char* name) noexcept {
  return ::dlsym(RTLD_DEFAULT, name);
}

const Curl& curl() noexcept {
#define KELVO_ADDRESS(name) &::curl_##name,
  static constexpr Curl functions{KELVO_CURL_FUNCTIONS(KELVO_ADDRESS)};
#undef KELVO_ADDRESS
  return functions;
}

#endif

}  // namespace kelvo
