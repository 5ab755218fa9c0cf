# sentrel_test(<name> SOURCES … LINK … [NEEDS program-targets …] [TIMEOUT seconds])
# A unit program is one test of ctest: it runs whole and shuffled, prints its seed, and writes what became of each case to
# unit-results/<name>.xml in the build directory, which tests/checks/sum_up.py counts. Of an integration program each case is
# one, in a process of its own, so that they run side by side. The label is the folder's: unit or integration; the targets
# unit-tests and integration-tests build all that bear it. The programs under NEEDS reach the test as environment variables named
# after their target in upper case with underscores (SENTRELD_ROOTED=…); a test has no default for them.
include(GoogleTest)
find_package(GTest REQUIRED)
add_custom_target(unit-tests)
add_custom_target(integration-tests)

# sentrel_needs(<target> program-target …): builds the target after the programs, and adds their paths to the caller's list
# "environment".
macro(sentrel_needs target)
    foreach(program ${ARGN})
        string(TOUPPER ${program} variable)
        string(REPLACE "-" "_" variable ${variable})
        list(APPEND environment "${variable}=$<TARGET_FILE:${program}>")
        add_dependencies(${target} ${program})
    endforeach()
endmacro()

# sentrel_compile_as_test(<target>): as tests' own sources are compiled. These are compiled together in every build; that the
# product's stand on their own is what release shows. Optimising them, sanitized, is half of a cold build; what they test is
# optimised as usual. Their lines in a stack are not worth a tenth of the time: a failed expectation names its own.
function(sentrel_compile_as_test target)
    target_link_libraries(${target} PRIVATE sentrel::options GTest::gtest GTest::gmock)
    set_target_properties(${target} PROPERTIES SENTREL_TEST_PROGRAM ON UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 12)
    target_compile_options(${target} PRIVATE -O0 -g0 -U_FORTIFY_SOURCE)
endfunction()

# What the tests include of other libraries, compiled once: a fifth of their time. Clang alone takes it where definitions differ.
if(CMAKE_UNITY_BUILD AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    file(TOUCH ${CMAKE_BINARY_DIR}/test-headers.cpp)
    add_library(sentrel_test_headers OBJECT ${CMAKE_BINARY_DIR}/test-headers.cpp)
    sentrel_compile_as_test(sentrel_test_headers)
    target_link_libraries(sentrel_test_headers PRIVATE fmt::fmt)
    # Without the time in it, what was compiled with the same one is found again.
    target_compile_options(sentrel_test_headers PRIVATE "SHELL:-Xclang -fno-pch-timestamp")
    target_precompile_headers(sentrel_test_headers PRIVATE <gtest/gtest.h> <gmock/gmock.h> <fmt/format.h> <nlohmann/json.hpp>
        <algorithm> <array> <chrono> <condition_variable> <filesystem> <fstream> <functional> <future> <map> <memory> <mutex>
        <optional> <random> <regex> <set> <sstream> <string> <thread> <variant> <vector>)
endif()

function(sentrel_test name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "TIMEOUT" "SOURCES;LINK;NEEDS")
    add_executable(${name} ${arg_SOURCES})
    sentrel_compile_as_test(${name})
    target_link_libraries(${name} PRIVATE ${arg_LINK} GTest::gtest_main)
    if(TARGET sentrel_test_headers)
        target_precompile_headers(${name} REUSE_FROM sentrel_test_headers)
    endif()
    set(environment "TSAN_OPTIONS=suppressions=${CMAKE_SOURCE_DIR}/tests/tsan-suppressions.txt halt_on_error=1"
        "LSAN_OPTIONS=suppressions=${CMAKE_SOURCE_DIR}/tests/lsan-suppressions.txt:print_suppressions=0"
        "UBSAN_OPTIONS=print_stacktrace=1")
    # The unit tests hold in every time zone, which CI tries; their zone is the caller's.
    if(CMAKE_CURRENT_SOURCE_DIR MATCHES "/tests/integration$")
        list(APPEND environment "TZ=UTC")
    endif()
    sentrel_needs(${name} ${arg_NEEDS})
    if(NOT CMAKE_CURRENT_SOURCE_DIR MATCHES "/tests/integration$")
        if(NOT arg_TIMEOUT)
            set(arg_TIMEOUT 1200)
        endif()
        target_link_libraries(${name} PRIVATE sentrel_unit_program)
        add_dependencies(unit-tests ${name})
        add_test(NAME ${name} COMMAND ${name} --gtest_shuffle --gtest_output=xml:${CMAKE_BINARY_DIR}/unit-results/${name}.xml)
        set_tests_properties(${name} PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS unit ENVIRONMENT "${environment}")
        return()
    endif()
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 120)
    endif()
    add_dependencies(integration-tests ${name})
    gtest_discover_tests(${name}
        DISCOVERY_MODE PRE_TEST
        NO_PRETTY_VALUES
        TEST_PREFIX "${name}:"
        TEST_LIST ${name}-tests
        PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS integration)
    # A property that is a list does not get through gtest_discover_tests: it is set when the tests are known.
    file(GENERATE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/${name}-environment.cmake
        CONTENT "set_tests_properties(\${${name}-tests} PROPERTIES ENVIRONMENT \"${environment}\")\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}-environment.cmake)
endfunction()
