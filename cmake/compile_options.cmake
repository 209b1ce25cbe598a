# SPDX-License-Identifier: Apache-2.0
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wcast-qual -Wformat=2 -Wimplicit-fallthrough -Wundef
                    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor> $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  add_compile_options(-Wthread-safety)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  add_compile_options(-Wno-restrict)  # GCC bug 105651: false alarms about std::string's operator+
endif()
if(TELVORA_WERROR)
  add_compile_options(-Werror)
endif()

if(TELVORA_SANITIZE)
  add_compile_options(-fsanitize=${TELVORA_SANITIZE} -fno-omit-frame-pointer -O1 -g1)
  add_link_options(-fsanitize=${TELVORA_SANITIZE})
  add_compile_definitions(TELVORA_SANITIZED)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-maybe-uninitialized)  # false alarms in instrumented code, as GCC's manual says
  endif()
  if(TELVORA_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
      # The check of virtual tables needs a free descriptor, and C programs that link the library lack both runtimes.
      add_compile_options(-fno-sanitize=vptr,function
                          -fsanitize-ignorelist=${CMAKE_CURRENT_LIST_DIR}/ubsan_ignored.txt)
    endif()
  endif()
else()
  # The figures that libstdc++ checks here cost next to nothing, and what they stop would be a security hole.
  add_compile_options(-fstack-protector-strong)
  add_compile_definitions($<$<CONFIG:Release>:_FORTIFY_SOURCE=2> _GLIBCXX_ASSERTIONS)
  # A program keeps only the functions that it needs of the files that it links.
  add_compile_options(-ffunction-sections -fdata-sections)
  add_link_options(-Wl,-z,relro,-z,now -Wl,--as-needed -Wl,--gc-sections)
endif()

if(TELVORA_LIBFUZZER)
  add_compile_options(-fsanitize=fuzzer-no-link -fprofile-instr-generate -fcoverage-mapping)
  add_link_options(-fprofile-instr-generate)
endif()

# Asio without Boost, and without its exceptions reaching a handler: every call here takes an error_code.
add_compile_definitions(ASIO_STANDALONE ASIO_NO_DEPRECATED _GNU_SOURCE)
# asio decides on aligned_alloc(3) by a macro that it sees only where a header of libstdc++ came before it, so
# that what one file allocates with it another might delete without it.
add_compile_definitions(ASIO_HAS_STD_ALIGNED_ALLOC=1)
