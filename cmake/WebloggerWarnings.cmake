# Every target of ours compiles warning-free; third-party headers come in as system headers.
function(weblogger_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()
