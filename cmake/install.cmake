# SPDX-License-Identifier: MIT
# What is installed, in three components: "runtime" is the shared library; "development" the headers, the files for
# CMake and pkg-config and a static library; "command" the command and its page. The installed tree may be moved, or
# installed under another prefix than it was configured for.
include(CMakePackageConfigHelpers)

install(TARGETS fetchrig EXPORT fetchrig-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(FILES include/fetchrig.h include/fetchrig_types.h include/fetchrig_openssl.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/fetchrig)
install(EXPORT fetchrig-targets NAMESPACE fetchrig:: DESTINATION ${package_dir} COMPONENT development)
configure_package_config_file(packaging/fetchrig-config.cmake.in fetchrig-config.cmake
  INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(fetchrig-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/fetchrig-config.cmake ${CMAKE_CURRENT_BINARY_DIR}/fetchrig-config-version.cmake
  DESTINATION ${package_dir} COMPONENT development)

file(RELATIVE_PATH FETCHRIG_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" FETCHRIG_PC_TO_PREFIX ${FETCHRIG_PC_TO_PREFIX})
list(TRANSFORM FETCHRIG_RUNTIME PREPEND "-l" OUTPUT_VARIABLE FETCHRIG_PC_LIBS_PRIVATE)
list(JOIN FETCHRIG_PC_LIBS_PRIVATE " " FETCHRIG_PC_LIBS_PRIVATE)
configure_file(packaging/fetchrig.pc.in fetchrig.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/fetchrig.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# Manual pages of the calls, made from the headers' comments where there is a Python.
find_package(Python3 QUIET COMPONENTS Interpreter)
if(Python3_FOUND)
  file(GLOB headers CONFIGURE_DEPENDS include/*.h)
  add_custom_command(OUTPUT manual.stamp
    COMMAND ${CMAKE_COMMAND} -E rm -rf manual
    COMMAND ${Python3_EXECUTABLE} -B ${PROJECT_SOURCE_DIR}/scripts/manual.py manual
    COMMAND ${CMAKE_COMMAND} -E touch manual.stamp
    DEPENDS ${headers} scripts/manual.py docs/fetchrig.1 VERBATIM)
  add_custom_target(fetchrig_manual ALL DEPENDS manual.stamp)
  install(DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/manual/
    DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT development)
endif()

if(FETCHRIG_TOOLS)
  install(TARGETS fetchrig_command RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT command)
  install(FILES docs/fetchrig.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT command)
  install(FILES cli/completion/fetchrig.bash RENAME fetchrig
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT command)
  install(FILES cli/completion/_fetchrig
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT command)
  install(FILES cli/completion/fetchrig.fish
    DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT command)
endif()
