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
            -Werror
            $<$<CXX_COMPILER_ID:Clang>:-Wreserved-identifier>)
endfunction()
