# SPDX-License-Identifier: Apache-2.0
# Warnings are not errors here, since another compiler may have more of them. With ENGINES_HTTP_WERROR=ON
# in the environment they are: see CMakePresets.json.
function(engines_http_warnings target)
  target_compile_options(
    ${target}
    PRIVATE -Wall
            -Wextra
            -Wpedantic
            -Wconversion
            -Wshadow
            -Wnon-virtual-dtor
            # GCC 12 reports overlaps in std::string's operator+ that do not exist (GCC bug 105651).
            $<$<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>
            # Clang 13 also reports macros of system headers.
            $<$<AND:$<CXX_COMPILER_ID:Clang>,$<VERSION_GREATER_EQUAL:$<CXX_COMPILER_VERSION>,14>>:-Wreserved-identifier>)
endfunction()
