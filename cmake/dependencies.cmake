# SPDX-License-Identifier: Apache-2.0
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(ZLIB REQUIRED)
find_package(OpenSSL 3.0 REQUIRED)
find_package(CURL REQUIRED)
find_package(fmt REQUIRED)

find_package(EXPAT REQUIRED)
pkg_check_modules(NETTLE REQUIRED IMPORTED_TARGET hogweed nettle gmp)
pkg_check_modules(SECCOMP REQUIRED IMPORTED_TARGET libseccomp)
pkg_check_modules(CAPNG REQUIRED IMPORTED_TARGET libcap-ng)
pkg_check_modules(SQLITE REQUIRED IMPORTED_TARGET sqlite3)
