# Compiler and linker settings that hold for every target.

add_library(corvane_options INTERFACE)
target_include_directories(corvane_options INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(corvane_options INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wold-style-cast
    -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align -Wformat=2
    -Wimplicit-fallthrough)
if(CORVANE_WERROR)
    target_compile_options(corvane_options INTERFACE -Werror)
endif()

if(CORVANE_SANITIZE)
    target_compile_options(corvane_options INTERFACE
        -fsanitize=${CORVANE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -O1)
    target_link_options(corvane_options INTERFACE -fsanitize=${CORVANE_SANITIZE})
    # Instrumented code hides from g++ 12 which member of a variant is alive.
    target_compile_options(corvane_options INTERFACE
        $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
endif()

if(CORVANE_COVERAGE)
    # The counters lie in the file itself: what a process counted is kept however it ends, also by
    # _exit(2) or a signal, and a child that shares its parent's memory counts there. Only with
    # "%c" in LLVM_PROFILE_FILE.
    target_compile_options(corvane_options INTERFACE
        -fprofile-instr-generate -fcoverage-mapping -mllvm -runtime-counter-relocation)
    target_link_options(corvane_options INTERFACE -fprofile-instr-generate)
endif()

if(CORVANE_HARDENING)
    include(CheckPIESupported)
    check_pie_supported(LANGUAGES CXX)
    target_compile_options(corvane_options INTERFACE
        -fstack-protector-strong -fstack-clash-protection -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
    target_link_options(corvane_options INTERFACE
        -pie -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--as-needed)
endif()

set(CORVANE_TESTS_DIR ${PROJECT_SOURCE_DIR}/tests)

# A folder's library: every source named, every use of another folder said.
function(corvane_add_library name)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;PUBLIC;PRIVATE")
    add_library(${name} STATIC ${ARG_SOURCES})
    target_link_libraries(${name} PUBLIC corvane_options ${ARG_PUBLIC} PRIVATE ${ARG_PRIVATE})
    cmake_path(IS_PREFIX CORVANE_TESTS_DIR ${CMAKE_CURRENT_SOURCE_DIR} isForTests)
    if(NOT isForTests AND NOT CORVANE_SANITIZE)
        corvane_check_uses(${name})
    endif()
endfunction()

# Every program takes the objects of many libraries and would not notice one that uses what it has
# not declared. So each library is also linked by itself into a program that does nothing: all of
# its objects and the libraries that it has declared. A name that they lack fails the build. A
# program rather than a shared object: static libraries of the system need not fit the latter.
function(corvane_check_uses name)
    file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/uses/nothing.cpp CONTENT "int main() {}\n")
    add_executable(${name}_uses ${PROJECT_BINARY_DIR}/uses/nothing.cpp)
    target_link_libraries(${name}_uses PRIVATE $<LINK_LIBRARY:WHOLE_ARCHIVE,${name}>)
    set_target_properties(${name}_uses PROPERTIES
        RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/uses)
endfunction()
