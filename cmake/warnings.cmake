# Warnings are errors in our own builds only: a user's compiler may know more of them than ours.
function(engines_http_warnings target)
  target_compile_options(
    ${target}
    PRIVATE -Wall
            -Wextra
            -Wpedantic
            -Wconversion
            -Wshadow
            -Wnon-virtual-dtor
            $<$<BOOL:$ENV{CI}>:-Werror>
            # GCC 12 sees overlaps in std::string's operator+ that are not there (GCC bug 105651).
            $<$<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>
            $<$<CXX_COMPILER_ID:Clang>:-Wreserved-identifier>)
endfunction()
