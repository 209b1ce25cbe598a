# SPDX-License-Identifier: Apache-2.0
# Writes FILES as arrays of bytes into the C++ source OUTPUT, for telvora-lab/page/page_files.h.
set(arrays "")
set(entries "")
set(number 0)
foreach(file ${FILES})
  get_filename_component(name ${file} NAME)
  file(READ ${file} bytes HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${bytes}")
  string(APPEND arrays "constexpr char kFile${number}[] = {${bytes}};\n")
  string(APPEND entries "    {\"${name}\", {kFile${number}, sizeof kFile${number}}},\n")
  math(EXPR number "${number} + 1")
endforeach()
file(WRITE ${OUTPUT} "#include \"telvora-lab/page/page_files.h\"

namespace telvora::lab {
namespace {

${arrays}
constexpr PageFile kFiles[] = {
${entries}};

}  // namespace

std::span<const PageFile> pageFiles() {
    return kFiles;
}

}  // namespace telvora::lab
")
