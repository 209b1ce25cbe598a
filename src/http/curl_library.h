// SPDX-License-Identifier: Apache-2.0
//
// libcurl, loaded at the first request. If it were linked, it and the thirty libraries that it needs would be
// loaded at every start: 4 MB and half of the start-up time, for a daemon that may not report at all.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>
#include <tl/expected.hpp>

namespace telvora {

// The functions of libcurl that are used: member name, symbol.
#define TELVORA_CURL_FUNCTIONS(F)                  \
    F(globalInit, curl_global_init)                \
    F(globalCleanup, curl_global_cleanup)          \
    F(easyInit, curl_easy_init)                    \
    F(easyCleanup, curl_easy_cleanup)              \
    F(easySetopt, curl_easy_setopt)                \
    F(easyGetinfo, curl_easy_getinfo)              \
    F(easyStrerror, curl_easy_strerror)            \
    F(multiInit, curl_multi_init)                  \
    F(multiCleanup, curl_multi_cleanup)            \
    F(multiSetopt, curl_multi_setopt)              \
    F(multiAddHandle, curl_multi_add_handle)       \
    F(multiRemoveHandle, curl_multi_remove_handle) \
    F(multiPerform, curl_multi_perform)            \
    F(multiPoll, curl_multi_poll)                  \
    F(multiWakeup, curl_multi_wakeup)              \
    F(multiInfoRead, curl_multi_info_read)         \
    F(multiStrerror, curl_multi_strerror)          \
    F(versionInfo, curl_version_info)

class CurlLibrary {
  public:
    // Loads and initialises the library (curl_global_init(3), dlopen(3)); fails with a reason. Thread-safe.
    static tl::expected<std::unique_ptr<CurlLibrary>, std::string> open();
    // All objects of the library must be gone.
    ~CurlLibrary();
    CurlLibrary(const CurlLibrary&) = delete;
    CurlLibrary& operator=(const CurlLibrary&) = delete;

    // A member declared by a macro can't stand in parentheses.
#define TELVORA_CURL_MEMBER(name, symbol) \
    decltype(&::symbol) name = nullptr;  // NOLINT(bugprone-macro-parentheses)
    TELVORA_CURL_FUNCTIONS(TELVORA_CURL_MEMBER)
#undef TELVORA_CURL_MEMBER

  private:
    CurlLibrary() = default;

    bool initialized_ = false;
};

}  // namespace telvora
