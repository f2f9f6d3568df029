# Options, compiler settings and the helpers by which rooms, programs and tests are declared.

option(ZU_TESTS "Build the tests" ON)
option(ZU_BENCH "Build the benchmarks" OFF)
option(ZU_WERROR "Treat warnings as errors" OFF)
option(ZU_CCACHE "Compile through ccache where it is installed" ON)
set(ZU_SANITIZE "" CACHE STRING "Sanitizer: empty, address (with undefined), thread or fuzzer (clang, with address)")

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
endif()

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")

if(ZU_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    find_program(ZU_CCACHE_PROGRAM ccache)
    if(ZU_CCACHE_PROGRAM)
        set(CMAKE_CXX_COMPILER_LAUNCHER "${ZU_CCACHE_PROGRAM}")
    endif()
endif()

add_library(zu_options INTERFACE)
target_include_directories(zu_options INTERFACE "${PROJECT_SOURCE_DIR}")
target_compile_options(zu_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
    "-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")
# Boost: steady clock waits, bind without placeholders in the global namespace.
target_compile_definitions(zu_options INTERFACE BOOST_BIND_NO_PLACEHOLDERS BOOST_THREAD_VERSION=4
    BOOST_ALLOW_DEPRECATED_HEADERS)
if(ZU_WERROR)
    target_compile_options(zu_options INTERFACE -Werror)
endif()

if(ZU_SANITIZE STREQUAL "address")
    set(zu_sanitize -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
elseif(ZU_SANITIZE STREQUAL "thread")
    set(zu_sanitize -fsanitize=thread -fno-omit-frame-pointer)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        list(APPEND zu_sanitize -Wno-tsan)
    endif()
elseif(ZU_SANITIZE STREQUAL "fuzzer")
    set(zu_sanitize -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
elseif(NOT ZU_SANITIZE STREQUAL "")
    message(FATAL_ERROR "ZU_SANITIZE is '${ZU_SANITIZE}'; it takes address, thread or fuzzer")
endif()
if(ZU_SANITIZE)
    target_compile_options(zu_options INTERFACE ${zu_sanitize})
    target_link_options(zu_options INTERFACE ${zu_sanitize})
endif()

# zu_room(NAME SOURCES ... [DEPENDS ...] [PRIVATE_DEPENDS ...]): the static library of a room, known as zu::NAME.
function(zu_room name)
    cmake_parse_arguments(arg "" "" "SOURCES;DEPENDS;PRIVATE_DEPENDS" ${ARGN})
    add_library(zu_${name} STATIC ${arg_SOURCES})
    add_library(zu::${name} ALIAS zu_${name})
    target_link_libraries(zu_${name} PUBLIC zu_options ${arg_DEPENDS} PRIVATE ${arg_PRIVATE_DEPENDS})
endfunction()

# zu_program(NAME SOURCES ... DEPENDS ...): an executable that is built into bin/.
function(zu_program name)
    cmake_parse_arguments(arg "" "" "SOURCES;DEPENDS" ${ARGN})
    add_executable(${name} ${arg_SOURCES})
    target_link_libraries(${name} PRIVATE zu_options ${arg_DEPENDS})
endfunction()

# zu_loads_features(NAME): a program that loads the features library while it runs, and finds it where it was built. The
# sanitizers load libraries from within their own, for which the newer kind of rpath says nothing.
function(zu_loads_features name)
    set_target_properties(${name} PROPERTIES BUILD_RPATH "${CMAKE_BINARY_DIR}/packaging")
    target_link_options(${name} PRIVATE "LINKER:--disable-new-dtags")
endfunction()

# zu_test(NAME SOURCES ... [DEPENDS ...] [LABELS ...] [TIMEOUT seconds] [MACHINE] [WHOLE]): a GoogleTest program.
# Each of its cases is one CTest test, or the program as a whole with WHOLE. MACHINE: it uses the machine-wide names of
# the daemon, so no two such tests run at once. In DEPENDS a fake that replaces a service stands before the room.
function(zu_test name)
    cmake_parse_arguments(arg "MACHINE;WHOLE" "TIMEOUT" "SOURCES;DEPENDS;LABELS" ${ARGN})
    add_executable(${name} ${arg_SOURCES})
    target_link_libraries(${name} PRIVATE zu_options ${arg_DEPENDS} zu_test_process GTest::gmock GTest::gtest
        GTest::gtest_main)
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 120)
    endif()
    set(properties TIMEOUT ${arg_TIMEOUT})
    if(arg_LABELS)
        list(APPEND properties LABELS "${arg_LABELS}")
    endif()
    if(arg_MACHINE)
        list(APPEND properties RESOURCE_LOCK machine)
    endif()
    if(arg_WHOLE)
        add_test(NAME ${name} COMMAND ${name})
        set_tests_properties(${name} PROPERTIES ${properties} SKIP_REGULAR_EXPRESSION "\\[  SKIPPED \\]")
    else()
        gtest_discover_tests(${name} TEST_PREFIX "${name}." DISCOVERY_MODE PRE_TEST PROPERTIES ${properties})
    endif()
endfunction()
