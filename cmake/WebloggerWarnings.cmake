# Every target of ours compiles warning-free; third-party headers come in as system headers.
# The developers' builds (presets, CI) make warnings errors.
function(weblogger_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra)
    # g++ 12 at -O3 reports std::string concatenation in libstdc++'s own code as an overlapping
    # memcpy (-Wrestrict, a known false positive fixed in g++ 13): it would stop an -O3 build
    # with warnings as errors over code that is not ours.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
        target_compile_options(${target} PRIVATE -Wno-restrict)
    endif()
    if(WEBLOGGER_WARNINGS_AS_ERRORS)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
endfunction()

# Calls between functions of libweblogger.so bind directly instead of through the PLT: nothing
# outside the library is meant to interpose its functions, and the hot path is a chain of them.
#
# No "unique" symbols (GCC gives them to the statics of inline functions and templates): the
# dynamic linker never unloads a library that defines one, so dlclose would neither run the
# library's shutdown nor free it, and each dlopen after the first would reuse the old copy.
#
# The library's thread_local variables (a thread's render scratch, its write-refusal flag, its
# logger) are read on every log call. In a shared library the default model makes each read a call
# (to __tls_get_addr, or with TLS descriptors an indirect call returning the offset); the
# initial-exec model makes it one load relative to %fs, since the variables then sit in the
# static TLS block. That costs nothing when the library is loaded with the program. A library
# opened later with dlopen takes its block from the surplus glibc reserves for exactly this
# (512 bytes at least, rtld.optional_static_tls); ours are 88 bytes, and a dlopen that found no
# room would fail with "cannot allocate memory in static TLS block" rather than misbehave.
# Measured with the peer harness's buffered workload: 1.3% per line.
function(weblogger_library_options target)
    target_compile_options(${target} PRIVATE -fno-semantic-interposition)
    target_compile_options(${target} PRIVATE -ftls-model=initial-exec)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        target_compile_options(${target} PRIVATE -fno-gnu-unique)
    endif()
endfunction()
