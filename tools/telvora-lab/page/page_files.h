// SPDX-License-Identifier: Apache-2.0
//
// The files of the page, which the build compiles into the program (cmake/embed_files.cmake).
#pragma once

#include <span>
#include <string_view>

namespace telvora::lab {

struct PageFile {
    std::string_view name;
    std::string_view content;
};

std::span<const PageFile> pageFiles();

}  // namespace telvora::lab
