# SPDX-License-Identifier: Apache-2.0
# Finds the dependencies: for the library's own build and, installed beside its config, for programs that
# link it. `engines_http_missing` lists the missing ones, with the Debian packages that provide them.

# Adds `what` to the list, with the package that packages.txt names for `name`.
macro(engines_http_add_missing name what)
  file(STRINGS "${engines_http_packages}" engines_http_package REGEX "# ${name}$")
  string(REGEX REPLACE " .*" "" engines_http_package "${engines_http_package}")
  string(APPEND engines_http_missing
         "\n  ${what}: install the Debian package ${engines_http_package}")
endmacro()

# Like find_package, but adds a missing package to the list.
macro(engines_http_find name)
  find_package(${ARGV} QUIET)
  if(NOT ${name}_FOUND)
    string(REGEX REPLACE ";((COMPONENTS|CONFIG);?)?" " " engines_http_what "${ARGV}")
    engines_http_add_missing(${name} "${engines_http_what}")
  endif()
endmacro()

# The same for a package that only pkg-config knows.
macro(engines_http_find_module name module)
  if(PkgConfig_FOUND)
    pkg_check_modules(${name} QUIET IMPORTED_TARGET ${module})
  endif()
  if(NOT ${name}_FOUND)
    engines_http_add_missing(${name} ${module})
  endif()
endmacro()

# What a program needs that links the shared library: only what the public headers include.
macro(engines_http_find_for_headers)
  if((CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 11)
     OR (CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13))
    engines_http_add_missing(
      CXX
      "GCC 11 or Clang 13, or a newer one, not ${CMAKE_CXX_COMPILER_ID} ${CMAKE_CXX_COMPILER_VERSION}"
    )
  endif()
  engines_http_find(nlohmann_json 3.11)
endmacro()

# What the library itself needs, and a program that links the static library.
macro(engines_http_find_all)
  engines_http_find_for_headers()
  engines_http_find(PkgConfig)
  engines_http_find(CURL 7.87)
  engines_http_find(ICU COMPONENTS uc)
  engines_http_find(OpenSSL 3)
  engines_http_find(fmt)
  engines_http_find(spdlog)
  engines_http_find(ZLIB)
  engines_http_find_module(PCRE2 libpcre2-8>=10.40)  # \p{White_Space}
endmacro()
