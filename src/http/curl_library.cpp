// SPDX-License-Identifier: Apache-2.0
#include "http/curl_library.h"

#include <dlfcn.h>

#include "util/library_pages.h"

namespace telvora {

namespace {

// The soname of libcurl, the same on all systems.
constexpr const char* kLibraryName = "libcurl.so.4";

std::string loaderError() {
    const char* error = dlerror();
    return error != nullptr ? error : "unknown error of the dynamic loader";
}

}  // namespace

// The handle is never closed: an abandoned name lookup may still run inside the library.
tl::expected<std::unique_ptr<CurlLibrary>, std::string> CurlLibrary::open() {
    void* handle = dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) return tl::unexpected(loaderError());

    std::unique_ptr<CurlLibrary> library(new CurlLibrary);
#define TELVORA_CURL_LOAD(name, symbol)                                            \
    library->name = reinterpret_cast<decltype(&::symbol)>(dlsym(handle, #symbol)); \
    if (library->name == nullptr) return tl::unexpected(loaderError());
    TELVORA_CURL_FUNCTIONS(TELVORA_CURL_LOAD)
#undef TELVORA_CURL_LOAD

    const CURLcode code = library->globalInit(CURL_GLOBAL_DEFAULT);
    if (code != CURLE_OK) return tl::unexpected(std::string(library->easyStrerror(code)));
    library->initialized_ = true;
    unmapLoadedPages();
    return library;
}

CurlLibrary::~CurlLibrary() {
    if (initialized_) globalCleanup();
}

}  // namespace telvora
