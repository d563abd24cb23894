# Run by cpack when the files are in place and before the package is made of them: adds what a
# Debian package has and a plain installation has not, and packs what Debian wants packed.
cmake_minimum_required(VERSION 3.25)

set(top ${CPACK_TEMPORARY_DIRECTORY}/corvane${CPACK_PACKAGING_INSTALL_PREFIX})
set(manual ${top}/share/man/man8/corvane.8)
set(changelog ${top}/share/doc/corvane/changelog)
file(COPY_FILE ${CMAKE_CURRENT_LIST_DIR}/changelog ${changelog})
# -n: without a name and a time, so that the same input gives the same package.
execute_process(COMMAND gzip --best --no-name --force ${manual} ${changelog}
    COMMAND_ERROR_IS_FATAL ANY)
# These sections tell of the compiler and are of no use to a program that runs.
execute_process(COMMAND strip --remove-section=.comment --remove-section=.note ${top}/sbin/corvane
    COMMAND_ERROR_IS_FATAL ANY)
file(CHMOD ${manual}.gz ${changelog}.gz PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
