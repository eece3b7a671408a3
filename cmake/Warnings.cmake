# Host code: modern C++ with the usual warnings.
function(ornix_host_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wno-unused-parameter)
endfunction()
