# SPDX-License-Identifier: Apache-2.0
# Warnings are not errors here: another compiler may know more of them. CI's builds make them errors by
# ENGINES_HTTP_WERROR, see CMakePresets.json.
function(engines_http_warnings target)
  target_compile_options(
    ${target}
    PRIVATE -Wall
            -Wextra
            -Wpedantic
            -Wconversion
            -Wshadow
            -Wnon-virtual-dtor
            # GCC 12 sees overlaps in std::string's operator+ that are not there (GCC bug 105651).
            $<$<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>
            # Clang 13 looks into the macros of system headers.
            $<$<AND:$<CXX_COMPILER_ID:Clang>,$<VERSION_GREATER_EQUAL:$<CXX_COMPILER_VERSION>,14>>:-Wreserved-identifier>)
endfunction()
