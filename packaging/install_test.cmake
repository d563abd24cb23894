# Installs the component into an empty folder, with a prefix that is not the build's, and looks at
# what is there. Takes BUILD_DIRECTORY, WORK_DIRECTORY, the folders below the prefix (SBIN,
# UNIT_DIRECTORY, RULES_DIRECTORY, MANUAL_DIRECTORY, DOCUMENT_DIRECTORY), and PAGES, the pages of
# docs/ that are installed.
cmake_minimum_required(VERSION 3.25)

function(must_contain file line)
    file(STRINGS ${file} lines)
    list(FIND lines "${line}" position)
    if(position EQUAL -1)
        message(SEND_ERROR "${file} lacks the line: ${line}")
    endif()
endfunction()

file(REMOVE_RECURSE ${WORK_DIRECTORY})
set(stage ${WORK_DIRECTORY}/stage)

execute_process(
    COMMAND ${CMAKE_COMMAND} -E env DESTDIR=${stage}
        ${CMAKE_COMMAND} --install ${BUILD_DIRECTORY} --component corvane --prefix /opt/agent
    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "the installation failed:\n${output}")
endif()

file(GLOB_RECURSE installed LIST_DIRECTORIES false RELATIVE ${stage} ${stage}/*)
list(SORT installed)
set(expected
    opt/agent/${RULES_DIRECTORY}/70-corvane.rules
    opt/agent/${UNIT_DIRECTORY}/corvane.service
    opt/agent/${SBIN}/corvane
    opt/agent/${MANUAL_DIRECTORY}/man8/corvane.8
    opt/agent/${DOCUMENT_DIRECTORY}/CHANGELOG.md
    opt/agent/${DOCUMENT_DIRECTORY}/CONTRIBUTING.md
    opt/agent/${DOCUMENT_DIRECTORY}/README.md
    opt/agent/${DOCUMENT_DIRECTORY}/copyright)
foreach(page IN LISTS PAGES)
    list(APPEND expected opt/agent/${DOCUMENT_DIRECTORY}/docs/${page})
endforeach()
list(SORT expected)
if(NOT installed STREQUAL expected)
    message(SEND_ERROR "installed: ${installed}\nexpected: ${expected}")
endif()

set(binary ${stage}/opt/agent/${SBIN}/corvane)
execute_process(COMMAND test -x ${binary} RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    message(SEND_ERROR "${binary} is not executable")
endif()

# The unit starts the binary where it was installed, without the staging folder, and holds the
# settings that keep the host's programs apart from the agent.
set(unit ${stage}/opt/agent/${UNIT_DIRECTORY}/corvane.service)
must_contain(${unit} "ExecStart=/opt/agent/${SBIN}/corvane")
must_contain(${unit} "BindsTo=dev-tty.org.qemu.guest_agent.0.device")
must_contain(${unit} "Restart=always")
must_contain(${unit} "KillMode=process")
must_contain(${unit} "OOMPolicy=continue")
must_contain(${unit} "TasksMax=infinity")
must_contain(${unit} "UnsetEnvironment=INVOCATION_ID JOURNAL_STREAM SYSTEMD_EXEC_PID")
file(READ ${unit} text)
if(text MATCHES "@")
    message(SEND_ERROR "${unit} has a place that was not filled in")
endif()
foreach(directive OOMScoreAdjust NoNewPrivileges UMask LockPersonality "Private[A-Za-z]*"
        "Protect[A-Za-z]*" "Restrict[A-Za-z]*" "Capability[A-Za-z]*" "SystemCall[A-Za-z]*"
        "Device[A-Za-z]*" "IPAddress[A-Za-z]*" "ReadOnly[A-Za-z]*" "Memory[A-Za-z]*" "CPU[A-Za-z]*")
    if(text MATCHES "\n(${directive})=")
        message(SEND_ERROR "${unit} sets ${CMAKE_MATCH_1}, which the host's programs would inherit")
    endif()
endforeach()

# The rule starts that very unit.
file(READ ${stage}/opt/agent/${RULES_DIRECTORY}/70-corvane.rules text)
if(NOT text MATCHES "ENV{SYSTEMD_WANTS}\\+=\"corvane.service\"")
    message(SEND_ERROR "the udev rule does not start the service")
endif()

# Where systemd is at hand, it reads the unit too.
find_program(systemdAnalyze systemd-analyze)
if(systemdAnalyze)
    file(READ ${unit} text)
    string(REPLACE "ExecStart=/opt/agent/${SBIN}/corvane" "ExecStart=${binary}" text "${text}")
    file(WRITE ${WORK_DIRECTORY}/corvane.service "${text}")
    execute_process(COMMAND ${systemdAnalyze} verify --man=no ${WORK_DIRECTORY}/corvane.service
        RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    # Units of the machine at hand may have faults of their own.
    string(REGEX MATCHALL "[^\n]*corvane[^\n]*" findings "${output}")
    if(findings)
        message(SEND_ERROR "systemd-analyze: ${findings}")
    endif()
endif()

file(REMOVE_RECURSE ${WORK_DIRECTORY})
