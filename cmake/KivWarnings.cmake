# Warnings for our own targets only; third-party headers are included as system headers.
function(kiv_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wconversion -Wno-sign-conversion
    $<$<CXX_COMPILER_ID:GNU>:-Wshadow=compatible-local>)
endfunction()
