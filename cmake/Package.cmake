# cmake --install: headers, libraries, the CMake package (find_package(kelvane CONFIG), targets
# kelvane::kelvane and kelvane::gtk) and the pkg-config files kelvane.pc and kelvane-gtk.pc.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KELVANE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kelvane)
# A static library brings its private dependencies to the host's link; a shared one does not.
if(BUILD_SHARED_LIBS)
  set(KELVANE_STATIC_PACKAGE FALSE)
else()
  set(KELVANE_STATIC_PACKAGE TRUE)
endif()

install(TARGETS kelvane EXPORT kelvaneTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT kelvaneTargets NAMESPACE kelvane:: DESTINATION ${KELVANE_CMAKE_DIR})
if(TARGET kelvane-gtk)
  # Its own export file, so that the package can recreate the toolkit's imported target first.
  install(TARGETS kelvane-gtk EXPORT kelvaneGtkTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  install(EXPORT kelvaneGtkTargets NAMESPACE kelvane:: DESTINATION ${KELVANE_CMAKE_DIR})
endif()

list(JOIN KELVANE_GTK_MODULES " " KELVANE_GTK_MODULES_TEXT)
configure_package_config_file(cmake/kelvaneConfig.cmake.in
  ${PROJECT_BINARY_DIR}/package/kelvaneConfig.cmake
  INSTALL_DESTINATION ${KELVANE_CMAKE_DIR})
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(compatibility SameMinorVersion)
else()
  set(compatibility SameMajorVersion)
endif()
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/kelvaneConfigVersion.cmake
  COMPATIBILITY ${compatibility})
install(FILES ${PROJECT_BINARY_DIR}/package/kelvaneConfig.cmake
  ${PROJECT_BINARY_DIR}/package/kelvaneConfigVersion.cmake
  DESTINATION ${KELVANE_CMAKE_DIR})

# pkg-config files find their prefix from their own place, so an install to another prefix
# (cmake --install --prefix) stays right.
function(kelvane_pc_dir var dir)
  if(IS_ABSOLUTE "${dir}")
    set(${var} "${dir}" PARENT_SCOPE)
  else()
    set(${var} "\${prefix}/${dir}" PARENT_SCOPE)
  endif()
endfunction()
file(RELATIVE_PATH KELVANE_PC_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" KELVANE_PC_PREFIX "${KELVANE_PC_PREFIX}")
kelvane_pc_dir(KELVANE_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
kelvane_pc_dir(KELVANE_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
set(pc_files kelvane)
if(TARGET kelvane-gtk)
  list(APPEND pc_files kelvane-gtk)
  list(JOIN KELVANE_GTK_LDFLAGS " " KELVANE_PC_GTK_LIBS)
endif()
foreach(pc IN LISTS pc_files)
  configure_file(cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/package/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/package/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
