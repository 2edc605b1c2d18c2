# Installation: the shared library (with its SONAME links), optionally the
# static library, the public headers, a CMake package exporting morven::morven
# (and morven::morven_static) and a pkg-config file.
#
# Everything installed is relocatable: the CMake package locates itself and
# morven.pc is written at install time for the prefix actually installed to,
# so `cmake --install <build> --prefix <dir>` yields a usable tree.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(MORVEN_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/morven"
    CACHE STRING "Where morvenConfig.cmake is installed (relative to the prefix)")
mark_as_advanced(MORVEN_INSTALL_CMAKEDIR)

set(_morven_install_targets morven)
if(MORVEN_BUILD_STATIC)
  list(APPEND _morven_install_targets morven_static)
endif()

install(TARGETS ${_morven_install_targets}
  EXPORT morvenTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT Runtime
    NAMELINK_COMPONENT Development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/morven
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT Development
  FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_BINARY_DIR}/include/morven/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/morven
  COMPONENT Development)

# ---------------------------------------------------------------------------
# CMake package: find_package(morven) then target_link_libraries(... morven::morven).
install(EXPORT morvenTargets
  NAMESPACE morven::
  FILE morvenTargets.cmake
  DESTINATION ${MORVEN_INSTALL_CMAKEDIR}
  COMPONENT Development)

configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/morvenConfig.cmake.in
  ${PROJECT_BINARY_DIR}/morvenConfig.cmake
  INSTALL_DESTINATION ${MORVEN_INSTALL_CMAKEDIR})
# The C interface only grows within a major version.
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/morvenConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/morvenConfig.cmake
  ${PROJECT_BINARY_DIR}/morvenConfigVersion.cmake
  DESTINATION ${MORVEN_INSTALL_CMAKEDIR}
  COMPONENT Development)

# ---------------------------------------------------------------------------
# pkg-config. The directories are filled in now, relative to ${prefix} unless
# they were given as absolute paths; the prefix itself is only known when the
# install runs (it may be overridden with --prefix), so the file is finished
# then. The placeholder survives the first pass because configure_file does
# not rescan substituted text.
foreach(_dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${_dir}}")
    set(MORVEN_PC_${_dir} "${CMAKE_INSTALL_${_dir}}")
  else()
    set(MORVEN_PC_${_dir} "\${prefix}/${CMAKE_INSTALL_${_dir}}")
  endif()
endforeach()
set(MORVEN_PC_PREFIX "@MORVEN_PC_PREFIX@")
configure_file(${CMAKE_CURRENT_LIST_DIR}/morven.pc.in
  ${PROJECT_BINARY_DIR}/morven.pc.in @ONLY)
unset(MORVEN_PC_PREFIX)

if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(_morven_pc_destination "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
else()
  set(_morven_pc_destination "\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig")
endif()
set(_morven_pc_code [[
set(MORVEN_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
configure_file("@PROJECT_BINARY_DIR@/morven.pc.in" "@PROJECT_BINARY_DIR@/morven.pc" @ONLY)
file(INSTALL DESTINATION "@_morven_pc_destination@" TYPE FILE
     FILES "@PROJECT_BINARY_DIR@/morven.pc")
]])
string(CONFIGURE "${_morven_pc_code}" _morven_pc_code @ONLY)
install(CODE "${_morven_pc_code}" COMPONENT Development)

unset(_morven_pc_code)
unset(_morven_pc_destination)
unset(_morven_install_targets)
