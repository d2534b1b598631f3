# Every target of ours compiles warning-free; third-party headers come in as system headers.
function(weblogger_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()

# Calls between functions of libweblogger.so bind directly instead of through the PLT: nothing
# outside the library is meant to interpose its functions, and the hot path is a chain of them.
function(weblogger_library_options target)
    target_compile_options(${target} PRIVATE -fno-semantic-interposition)
endfunction()
