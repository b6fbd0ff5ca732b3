# Installation: `cmake --install BUILD [--prefix P]`, with DESTDIR for a
# staged tree, and `cpack` for a tarball of that tree. Layout under the prefix
# (default /usr):
#   sbin/zibd                                the daemon
#   bin/kordctl, bin/rillctl, bin/zibd-status  the tools
#   lib/zibd/                                the profilers the map names
#   share/zibd/file-types.ini                the shipped file-type map
#   share/man/man1, share/man/man8           the manual pages
#   ZIBD_INIT_DIR/zibd                       the start script (default
#                                            SYSCONFDIR/init.d: /etc/init.d)
include(GNUInstallDirs)

# -DZIBD_INIT_DIR=DIR puts the start script elsewhere, -DZIBD_INIT_DIR= leaves
# it out. The prefix is a configure-time choice (-DCMAKE_INSTALL_PREFIX): the
# map and the start script name the installed paths.
if(NOT DEFINED ZIBD_INIT_DIR)
  set(ZIBD_INIT_DIR "${CMAKE_INSTALL_FULL_SYSCONFDIR}/init.d")
endif()
# The profilers' directory is the one the shipped map names below the prefix;
# lib/ rather than the multiarch library directory, as on the gateway.
set(ZIBD_PROFILER_DIR "lib/zibd")
set(zibd_full_profiler_dir "${CMAKE_INSTALL_PREFIX}/${ZIBD_PROFILER_DIR}")

install(TARGETS zibd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
foreach(tool kordctl rillctl zibd-status)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()

# The profiler the map names. A cross build has it only once its libraries
# are built (scripts/mips-media.sh).
if(TARGET zibd-profile)
  install(TARGETS zibd-profile RUNTIME DESTINATION ${ZIBD_PROFILER_DIR})
else()
  message(STATUS "zibd-profile is not built: the install leaves ${ZIBD_PROFILER_DIR} empty")
endif()

# The map, with its profilers where this prefix puts them.
file(READ ${CMAKE_SOURCE_DIR}/sample/file-types.ini zibd_map)
string(REPLACE "/usr/lib/zibd/" "${zibd_full_profiler_dir}/" zibd_map "${zibd_map}")
file(WRITE ${CMAKE_BINARY_DIR}/install/file-types.ini "${zibd_map}")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/sample/file-types.ini)
install(FILES ${CMAKE_BINARY_DIR}/install/file-types.ini DESTINATION ${CMAKE_INSTALL_DATADIR}/zibd)

# The start script, with this installation's paths.
if(ZIBD_INIT_DIR)
  set(ZIBD_SBINDIR "${CMAKE_INSTALL_FULL_SBINDIR}")
  set(ZIBD_BINDIR "${CMAKE_INSTALL_FULL_BINDIR}")
  set(ZIBD_MAPFILE "${CMAKE_INSTALL_FULL_DATADIR}/zibd/file-types.ini")
  configure_file(${CMAKE_SOURCE_DIR}/packaging/zibd-init.sh ${CMAKE_BINARY_DIR}/install/zibd @ONLY)
  install(PROGRAMS ${CMAKE_BINARY_DIR}/install/zibd DESTINATION ${ZIBD_INIT_DIR})
endif()

install(FILES ${CMAKE_SOURCE_DIR}/man/zibd.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${CMAKE_SOURCE_DIR}/man/kordctl.1 ${CMAKE_SOURCE_DIR}/man/rillctl.1 ${CMAKE_SOURCE_DIR}/man/zibd-status.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

# `cpack` (in the build directory): a tarball of the staged tree, paths from
# the file system root (usr/sbin/zibd, etc/init.d/zibd), for the firmware.
set(CPACK_PACKAGE_NAME zibd)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR zibd)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Media-indexing daemon for home gateways")
set(CPACK_GENERATOR TGZ)
set(CPACK_SET_DESTDIR ON)
set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY OFF)
# Programs without their debugging information, for the gateway's flash
# (`cmake --install BUILD --strip` does the same for a staged tree).
set(CPACK_STRIP_FILES ON)
if(CMAKE_CROSSCOMPILING)
  set(CPACK_SYSTEM_NAME "${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR}")
  # How scripts/check-install.sh runs the packed programs here.
  list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " zibd_emulator)
  file(WRITE ${CMAKE_BINARY_DIR}/install/emulator "${zibd_emulator}\n")
else()
  file(REMOVE ${CMAKE_BINARY_DIR}/install/emulator)
endif()
set(CPACK_PACKAGE_FILE_NAME "zibd-${PROJECT_VERSION}-${CMAKE_SYSTEM_PROCESSOR}")
include(CPack)
