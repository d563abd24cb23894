# Makes the Debian package in a folder of its own and looks at all that is in it. Takes CPACK,
# BUILD_DIRECTORY, WORK_DIRECTORY, VERSION, SYSTEMD (whether the agent is built with libsystemd),
# PAGES (the pages of docs/ that are in it).
cmake_minimum_required(VERSION 3.25)

# Runs a command that must succeed, and gives what it prints to `result`.
function(run result)
    execute_process(COMMAND ${ARGN}
        RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE errors)
    if(NOT status EQUAL 0)
        list(JOIN ARGN " " command)
        message(FATAL_ERROR "${command} failed (${status}):\n${output}${errors}")
    endif()
    set(${result} "${output}" PARENT_SCOPE)
endfunction()

function(must_match text pattern what)
    if(NOT "${text}" MATCHES "${pattern}")
        message(SEND_ERROR "${what}: nothing in it matches ${pattern}:\n${text}")
    endif()
endfunction()

function(must_be what got expected)
    if(NOT "${got}" STREQUAL "${expected}")
        list(JOIN got "\n  " got)
        list(JOIN expected "\n  " expected)
        message(SEND_ERROR "${what}:\n  ${got}\nexpected:\n  ${expected}")
    endif()
endfunction()

file(REMOVE_RECURSE ${WORK_DIRECTORY})
run(ignored ${CPACK} --config ${BUILD_DIRECTORY}/CPackConfig.cmake -B ${WORK_DIRECTORY}/made)
run(architecture dpkg --print-architecture)
string(STRIP "${architecture}" architecture)
file(GLOB packages RELATIVE ${WORK_DIRECTORY}/made ${WORK_DIRECTORY}/made/*.deb)
must_be("packages made" "${packages}" corvane_${VERSION}_${architecture}.deb)
set(package ${WORK_DIRECTORY}/made/corvane_${VERSION}_${architecture}.deb)

# --- what it puts where ---------------------------------------------------------------------------
# dpkg-deb's listing: mode, owner, size, date, time, path.
run(listing dpkg-deb --contents ${package})
string(REGEX REPLACE "\n$" "" listing "${listing}")
string(REPLACE "\n" ";" lines "${listing}")
set(contents)
foreach(line IN LISTS lines)
    if(line MATCHES "^([^ ]+) ([^ ]+) +[0-9]+ [^ ]+ [^ ]+ \\./(.*)$")
        list(APPEND contents "${CMAKE_MATCH_3} ${CMAKE_MATCH_1} ${CMAKE_MATCH_2}")
    else()
        message(SEND_ERROR "cannot read this line of dpkg-deb: ${line}")
    endif()
endforeach()
set(expected "usr/sbin/corvane -rwxr-xr-x root/root")
set(files
    usr/lib/systemd/system/corvane.service
    usr/lib/udev/rules.d/70-corvane.rules
    usr/share/doc/corvane/CHANGELOG.md
    usr/share/doc/corvane/CONTRIBUTING.md
    usr/share/doc/corvane/README.md
    usr/share/doc/corvane/changelog.gz
    usr/share/doc/corvane/copyright
    usr/share/man/man8/corvane.8.gz)
foreach(page IN LISTS PAGES)
    list(APPEND files usr/share/doc/corvane/docs/${page})
endforeach()
foreach(file IN LISTS files)
    list(APPEND expected "${file} -rw-r--r-- root/root")
endforeach()
foreach(folder usr/ usr/lib/ usr/lib/systemd/ usr/lib/systemd/system/ usr/lib/udev/
        usr/lib/udev/rules.d/ usr/sbin/ usr/share/ usr/share/doc/ usr/share/doc/corvane/
        usr/share/doc/corvane/docs/ usr/share/man/ usr/share/man/man8/)
    list(APPEND expected "${folder} drwxr-xr-x root/root")
endforeach()
list(SORT contents)
list(SORT expected)
must_be("the package holds" "${contents}" "${expected}")

# --- what it says of itself -----------------------------------------------------------------------
run(version dpkg-deb --field ${package} Version)
must_be("version" "${version}" "${VERSION}\n")
# Without the versions, which are the build machine's.
run(depends dpkg-deb --field ${package} Depends)
string(REGEX REPLACE " \\([^)]*\\)" "" depends "${depends}")
string(REGEX REPLACE "[, \n]+" ";" depends "${depends}")
list(FILTER depends EXCLUDE REGEX "^$")
list(SORT depends)
set(expected libc6 libgcc-s1 libstdc++6)
if(SYSTEMD)
    set(expected libc6 libgcc-s1 libstdc++6 libsystemd0)
endif()
must_be("depends on" "${depends}" "${expected}")

run(ignored dpkg-deb --control ${package} ${WORK_DIRECTORY}/control)
file(GLOB control RELATIVE ${WORK_DIRECTORY}/control ${WORK_DIRECTORY}/control/*)
list(SORT control)
must_be("control files" "${control}" "control;md5sums;postinst;postrm;prerm")
foreach(script postinst postrm prerm)
    run(ignored test -x ${WORK_DIRECTORY}/control/${script})
    run(ignored sh -n ${WORK_DIRECTORY}/control/${script})
endforeach()

# --- what is in the files -------------------------------------------------------------------------
run(ignored dpkg-deb --extract ${package} ${WORK_DIRECTORY}/tree)
set(usr ${WORK_DIRECTORY}/tree/usr)

run(sections readelf --wide --section-headers ${usr}/sbin/corvane)
if(sections MATCHES "\\.(symtab|debug[a-z_]*|comment)")
    message(SEND_ERROR "the binary is not stripped, it has .${CMAKE_MATCH_1}")
endif()
run(headers readelf --wide --file-header --program-headers --dynamic ${usr}/sbin/corvane)
must_match("${headers}" "Type: +DYN \\(Position-Independent Executable" "the binary's headers")
must_match("${headers}" "GNU_RELRO" "the binary's headers")
must_match("${headers}" "Flags: [^\n]*NOW" "the binary's headers")
must_match("${headers}" "GNU_STACK [^\n]* RW  " "the binary's headers")
run(symbols readelf --wide --dyn-syms ${usr}/sbin/corvane)
must_match("${symbols}" "__stack_chk_fail" "the binary's symbols")
must_match("${symbols}" "__[a-z]+_chk@" "the binary's symbols")

file(STRINGS ${usr}/lib/systemd/system/corvane.service unit)
foreach(line "ExecStart=/usr/sbin/corvane" "Documentation=man:corvane(8)" "KillMode=process")
    if(NOT line IN_LIST unit)
        message(SEND_ERROR "the unit lacks the line ${line}")
    endif()
endforeach()

run(changelog gzip --decompress --stdout ${usr}/share/doc/corvane/changelog.gz)
must_match("${changelog}" "^corvane \\(${VERSION}\\) " "changelog")
# The licences ask for their notices to be with the binary.
file(READ ${usr}/share/doc/corvane/copyright copyright)
foreach(notice "Boost Software License - Version 1\\.0" "Frank Denis"
        "Permission to use, copy, modify" "Yann Collet" "BSD 2-Clause License")
    must_match("${copyright}" "${notice}" "copyright")
endforeach()

# --- the manual page ------------------------------------------------------------------------------
set(manual ${usr}/share/man/man8/corvane.8.gz)
execute_process(
    COMMAND ${CMAKE_COMMAND} -E env --unset=MAN_KEEP_FORMATTING
        LC_ALL=C.UTF-8 MANROFFSEQ= MANWIDTH=80 MANPAGER=cat man --warnings -E UTF-8 --local-file ${manual}
    RESULT_VARIABLE status OUTPUT_VARIABLE shown ERROR_VARIABLE warnings)
if(NOT status EQUAL 0 OR NOT "${warnings}" STREQUAL "")
    message(SEND_ERROR "man says (${status}): ${warnings}")
endif()
foreach(section NAME SYNOPSIS DESCRIPTION CHANNEL "EXIT STATUS" ENVIRONMENT FILES SIGNALS LOGGING
        SECURITY EXAMPLES "SEE ALSO")
    must_match("${shown}" "\n${section}\n" "the manual page as it is shown")
endforeach()

# --- Debian's own opinion -------------------------------------------------------------------------
find_program(lintian lintian)
if(lintian)
    execute_process(
        COMMAND ${lintian} --allow-root --no-cfg --fail-on error,warning ${package}
        RESULT_VARIABLE status OUTPUT_VARIABLE findings ERROR_VARIABLE findings)
    if(NOT status EQUAL 0)
        message(SEND_ERROR "lintian (${status}):\n${findings}")
    endif()
else()
    message(STATUS "lintian is not installed and was not asked")
endif()

file(REMOVE_RECURSE ${WORK_DIRECTORY})
