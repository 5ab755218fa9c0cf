# What every target of this project is compiled with.
set(SENTREL_SANITIZE "" CACHE STRING "Sanitizers for the whole build, as -fsanitize= takes them")
option(SENTREL_TESTS "Build tests, fuzz targets and benches" ON)
option(SENTREL_COVERAGE "Count what the tests execute" OFF)
option(SENTREL_LIBFUZZER "Link the fuzz targets with libFuzzer (clang) instead of their replay main" OFF)

add_library(sentrel_options INTERFACE)
add_library(sentrel::options ALIAS sentrel_options)
target_include_directories(sentrel_options INTERFACE ${CMAKE_SOURCE_DIR})
target_compile_options(sentrel_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor -Woverloaded-virtual
    -Wcast-align -Wundef -Wimplicit-fallthrough -Werror
    -fno-strict-aliasing
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety> # the annotations of base/Mutex.h
    # In a unity build GCC takes a source's own namespace for a header's.
    $<$<AND:$<CXX_COMPILER_ID:GNU>,$<BOOL:$<TARGET_PROPERTY:UNITY_BUILD>>>:-Wno-subobject-linkage>
    # Optimised together with its callers, a text that is empty looks like one that is not there.
    $<$<AND:$<CXX_COMPILER_ID:GNU>,$<CONFIG:Release>,$<BOOL:$<TARGET_PROPERTY:UNITY_BUILD>>>:-Wno-format-overflow>
    $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>) # GCC 12 sees an overlap in std::string's own operator+
target_compile_definitions(sentrel_options INTERFACE
    _FILE_OFFSET_BITS=64
    $<$<CONFIG:Release>:_FORTIFY_SOURCE=2>
    $<$<NOT:$<CONFIG:Release>>:_GLIBCXX_ASSERTIONS>)
target_link_options(sentrel_options INTERFACE -Wl,-z,relro,-z,now -Wl,--as-needed)

if(SENTREL_SANITIZE)
    # The checks of undefined behaviour look at the code under test; in the tests' own sources they only cost time to compile.
    string(REGEX REPLACE "," "$<COMMA>" sanitize_code "${SENTREL_SANITIZE}")
    string(REGEX REPLACE ",undefined" "" sanitize_tests "${SENTREL_SANITIZE}")
    target_compile_options(sentrel_options INTERFACE
        -fsanitize=$<IF:$<BOOL:$<TARGET_PROPERTY:SENTREL_TEST_PROGRAM>>,${sanitize_tests},${sanitize_code}>
        -fno-sanitize-recover=all -fno-omit-frame-pointer
        $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>) # GCC 12 sees ghosts in sanitized library code
    target_link_options(sentrel_options INTERFACE -fsanitize=${SENTREL_SANITIZE})
else()
    # Not beside AddressSanitizer, which sees more: the guard is a seventh of a sanitized build's time.
    target_compile_options(sentrel_options INTERFACE -fstack-protector-strong)
endif()
if(SENTREL_SANITIZE STREQUAL "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    # A runtime that is a library of its own: the linker's --wrap in the tests must not reach into it.
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-runtime-dir
        OUTPUT_VARIABLE runtime OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    add_library(sentrel_tsan_start OBJECT ${CMAKE_CURRENT_LIST_DIR}/TsanStart.cpp)
    target_link_options(sentrel_options INTERFACE -shared-libsan -Wl,-rpath,${runtime})
    target_link_libraries(sentrel_options INTERFACE $<TARGET_OBJECTS:sentrel_tsan_start>)
endif()
if(SENTREL_COVERAGE)
    target_compile_options(sentrel_options INTERFACE --coverage)
    target_link_options(sentrel_options INTERFACE --coverage)
endif()
if(SENTREL_LIBFUZZER)
    target_compile_options(sentrel_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

# sentrel_alone(<source>…): sources that a unity build compiles on their own, so that a test can link its double in the place
# of one object, or do without it. Names that clash are no reason for it: within a folder a helper has a name of its own.
function(sentrel_alone)
    set_source_files_properties(${ARGN} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
endfunction()

# sentrel_optimised(<target>…): in a sanitized build the tests spend more time in these than their optimisation costs.
function(sentrel_optimised)
    if(SENTREL_SANITIZE)
        foreach(target IN LISTS ARGN)
            target_compile_options(${target} PRIVATE -O1)
        endforeach()
    endif()
endfunction()

# sentrel_library(<name> SOURCES … LINK …): a folder's target, with its dependencies written down where it is made.
function(sentrel_library name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LINK")
    add_library(${name} STATIC ${arg_SOURCES})
    target_link_libraries(${name} PUBLIC sentrel::options ${arg_LINK})
endfunction()

# sentrel_program(<name> SOURCES … LINK …): a program in its two forms. <name> has fixed paths and is what is shipped;
# <name>-rooted is the same objects behind the install root of the environment, for tests and ./run. It is installed with those
# that people start, unless DESTINATION names another directory.
function(sentrel_program name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "DESTINATION" "SOURCES;LINK")
    if(NOT arg_DESTINATION)
        set(arg_DESTINATION ${CMAKE_INSTALL_SBINDIR})
    endif()
    add_executable(${name} ${arg_SOURCES})
    target_link_libraries(${name} PRIVATE sentrel::options ${arg_LINK} sentrel_root_shipped)
    add_executable(${name}-rooted ${arg_SOURCES})
    target_link_libraries(${name}-rooted PRIVATE sentrel::options ${arg_LINK} sentrel_root_environment)
    install(TARGETS ${name} DESTINATION ${arg_DESTINATION})
endfunction()
