# Installs the libraries, their headers, a CMake package and a pkg-config file.
# A consumer writes find_package(EventKesto CONFIG REQUIRED) and links
# EventKesto::EventKesto; the core library and the allocator come with it.
include(CMakePackageConfigHelpers)

get_property(kesto_targets GLOBAL PROPERTY KESTO_INSTALL_TARGETS)
get_property(kesto_includes GLOBAL PROPERTY KESTO_INSTALL_INCLUDES)

install(TARGETS ${kesto_targets}
  EXPORT EventKestoTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
foreach(dir IN LISTS kesto_includes)
  install(DIRECTORY ${dir}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    FILES_MATCHING PATTERN "*.h")
endforeach()

set(KESTO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/EventKesto)
install(EXPORT EventKestoTargets
  NAMESPACE EventKesto::
  DESTINATION ${KESTO_CMAKE_DIR})
configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/EventKestoConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/EventKestoConfig.cmake
  INSTALL_DESTINATION ${KESTO_CMAKE_DIR})
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/EventKestoConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/EventKestoConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/EventKestoConfigVersion.cmake
  DESTINATION ${KESTO_CMAKE_DIR})

file(RELATIVE_PATH KESTO_PC_TO_PREFIX
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(${CMAKE_CURRENT_LIST_DIR}/eventkesto.pc.in
  ${CMAKE_CURRENT_BINARY_DIR}/eventkesto.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/eventkesto.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
