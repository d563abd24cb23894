# Installs, upgrades, removes and purges the package in an empty root, where nothing runs, and looks
# at what is left. Needs no rights. Takes CPACK, BUILD_DIRECTORY, WORK_DIRECTORY, VERSION, and
# PAGES, the pages of docs/ that are in the package.
#
# The package's scripts are run outside that root, as dpkg does it for roots of other machines, and
# must leave the machine that the test is run on alone.
cmake_minimum_required(VERSION 3.25)

set(root ${WORK_DIRECTORY}/root)
set(calls ${WORK_DIRECTORY}/calls)

file(REMOVE_RECURSE ${WORK_DIRECTORY})
execute_process(COMMAND dpkg --print-architecture
    OUTPUT_VARIABLE architecture OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
set(newer ${VERSION}+newer)
foreach(version ${VERSION} ${newer})
    execute_process(COMMAND ${CPACK} --config ${BUILD_DIRECTORY}/CPackConfig.cmake
            -D CPACK_DEBIAN_PACKAGE_VERSION=${version} -D CPACK_DEBIAN_COMPRESSION_TYPE=none
            -D CPACK_DEBIAN_PACKAGE_SHLIBDEPS=OFF -B ${WORK_DIRECTORY}/made
        OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
endforeach()

# Whatever would act on a running system says that it was called.
foreach(tool systemctl udevadm deb-systemd-invoke)
    file(WRITE ${WORK_DIRECTORY}/tools/${tool} "#!/bin/sh\necho ${tool} \"$@\" >>${calls}\n")
    file(CHMOD ${WORK_DIRECTORY}/tools/${tool} PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
endforeach()

file(MAKE_DIRECTORY ${root}/var/lib/dpkg/info ${root}/var/lib/dpkg/updates ${root}/run)
file(TOUCH ${root}/var/lib/dpkg/status ${root}/var/lib/dpkg/available)
# Somebody else's, which has to stay.
file(WRITE ${root}/run/other "")
file(WRITE ${root}/usr/lib/udev/rules.d/60-other.rules "")

function(dpkg)
    execute_process(
        COMMAND ${CMAKE_COMMAND} -E env "PATH=${WORK_DIRECTORY}/tools:$ENV{PATH}:/usr/sbin:/sbin"
            dpkg --root=${root} --log=/dev/null --force-not-root --force-script-chrootless
            --force-depends --force-bad-path ${ARGN}
        RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "dpkg ${ARGN} failed (${status}):\n${output}")
    endif()
endfunction()

# What dpkg knows of the package, and which files are there but for its own.
function(must_be what expectedState)
    execute_process(COMMAND dpkg-query --admindir=${root}/var/lib/dpkg --show
            --showformat=\${db:Status-Status}=\${Version} corvane
        OUTPUT_VARIABLE state ERROR_QUIET)
    file(GLOB_RECURSE files RELATIVE ${root} ${root}/*)
    list(FILTER files EXCLUDE REGEX "^var/lib/dpkg/")
    list(SORT files)
    set(expected ${ARGN} run/other usr/lib/udev/rules.d/60-other.rules)
    list(SORT expected)
    if(NOT "${state}" STREQUAL "${expectedState}" OR NOT "${files}" STREQUAL "${expected}")
        message(SEND_ERROR "${what}: ${state}, ${files}\nexpected: ${expectedState}, ${expected}")
    endif()
endfunction()

set(installed
    usr/lib/systemd/system/corvane.service
    usr/lib/udev/rules.d/70-corvane.rules
    usr/sbin/corvane
    usr/share/doc/corvane/CHANGELOG.md
    usr/share/doc/corvane/CONTRIBUTING.md
    usr/share/doc/corvane/README.md
    usr/share/doc/corvane/changelog.gz
    usr/share/doc/corvane/copyright
    usr/share/man/man8/corvane.8.gz)
foreach(page IN LISTS PAGES)
    list(APPEND installed usr/share/doc/corvane/docs/${page})
endforeach()

dpkg(--install ${WORK_DIRECTORY}/made/corvane_${VERSION}_${architecture}.deb)
must_be("installed" "installed=${VERSION}" ${installed})
dpkg(--install ${WORK_DIRECTORY}/made/corvane_${VERSION}_${architecture}.deb)
must_be("installed again" "installed=${VERSION}" ${installed})
dpkg(--install ${WORK_DIRECTORY}/made/corvane_${newer}_${architecture}.deb)
must_be("upgraded" "installed=${newer}" ${installed})

# Captured output outlives the removal: its programs may still run, and the agent come back.
file(WRITE ${root}/run/corvane/1.stdout "output")
dpkg(--remove corvane)
must_be("removed" "config-files=${newer}" run/corvane/1.stdout)
dpkg(--install ${WORK_DIRECTORY}/made/corvane_${newer}_${architecture}.deb)
must_be("installed after the removal" "installed=${newer}" ${installed} run/corvane/1.stdout)
dpkg(--purge corvane)
must_be("purged" "")
foreach(folder run/corvane usr/sbin usr/share usr/lib/systemd)
    if(EXISTS ${root}/${folder})
        message(SEND_ERROR "purged: the folder ${folder} is left")
    endif()
endforeach()

if(EXISTS ${calls})
    file(READ ${calls} called)
    message(SEND_ERROR "the scripts have reached for the machine that they were run on:\n${called}")
endif()

file(REMOVE_RECURSE ${WORK_DIRECTORY})
