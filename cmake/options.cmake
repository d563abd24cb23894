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

if(CORVANE_HARDENING)
    include(CheckPIESupported)
    check_pie_supported(LANGUAGES CXX)
    target_compile_options(corvane_options INTERFACE
        -fstack-protector-strong -fstack-clash-protection -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
    target_link_options(corvane_options INTERFACE
        -pie -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--as-needed)
endif()

# A folder's library: every source named, every use of another folder said.
function(corvane_add_library name)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;PUBLIC;PRIVATE")
    add_library(${name} STATIC ${ARG_SOURCES})
    target_link_libraries(${name} PUBLIC corvane_options ${ARG_PUBLIC} PRIVATE ${ARG_PRIVATE})
endfunction()
