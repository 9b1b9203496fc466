# Project-wide compile settings, carried by one INTERFACE target that every
# other target links.
add_library(quillvane_flags INTERFACE)

target_compile_features(quillvane_flags INTERFACE cxx_std_20)
set(CMAKE_CXX_EXTENSIONS OFF)

target_compile_definitions(quillvane_flags INTERFACE
    QT_NO_CAST_FROM_ASCII
    QT_NO_CAST_TO_ASCII
    QT_USE_QSTRINGBUILDER
    QT_NO_CONTEXTLESS_CONNECT
    QT_NO_KEYWORDS
    QT_DISABLE_DEPRECATED_UP_TO=0x060400)

target_compile_options(quillvane_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wcast-align
    -Woverloaded-virtual -Wformat=2 -Wimplicit-fallthrough)

# Sanitized builds for the test suite (address,undefined) and the fuzzers,
# whose build also instruments every target for libFuzzer's coverage.
set(QUILLVANE_SANITIZE "" CACHE STRING "Sanitizers to build with, such as address,undefined")
if(QUILLVANE_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "The fuzzers need clang: configure with -DCMAKE_CXX_COMPILER=clang++")
    endif()
    set(QUILLVANE_SANITIZE "address,undefined")
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()
if(QUILLVANE_SANITIZE)
    # -fno-sanitize=vptr: GCC 12 checks the vtable of a pointer-to-member call
    # made from a lambda at the wrong address and reports a stack underflow
    # that is not there (GeneralPane's switches, Debug builds).
    add_compile_options(-fsanitize=${QUILLVANE_SANITIZE} -fno-omit-frame-pointer
                        -fno-sanitize-recover=undefined -fno-sanitize=vptr)
    add_link_options(-fsanitize=${QUILLVANE_SANITIZE})
endif()

if(QUILLVANE_WERROR)
    target_compile_options(quillvane_flags INTERFACE -Werror)
endif()

# Commit of the source tree, fixed at configure time for the build line.
find_package(Git QUIET)
set(QUILLVANE_COMMIT "unknown")
if(GIT_FOUND AND EXISTS "${CMAKE_SOURCE_DIR}/.git")
    execute_process(
        COMMAND "${GIT_EXECUTABLE}" rev-parse --short=7 HEAD
        WORKING_DIRECTORY "${CMAKE_SOURCE_DIR}"
        OUTPUT_VARIABLE _qv_commit
        OUTPUT_STRIP_TRAILING_WHITESPACE
        ERROR_QUIET
        RESULT_VARIABLE _qv_git_result)
    if(_qv_git_result EQUAL 0 AND _qv_commit)
        set(QUILLVANE_COMMIT "${_qv_commit}")
    endif()
endif()

# Build date for the About section (SOURCE_DATE_EPOCH is honoured, for
# reproducible builds).
string(TIMESTAMP QUILLVANE_BUILD_DATE "%Y-%m-%d" UTC)
