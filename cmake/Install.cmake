# Rules for `cmake --install` and `cpack -G DEB`: libraries, headers, tools, documents, and files for find_package and
# pkg-config.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Kelvo)
install(TARGETS kelvo EXPORT KelvoTargets)
install(TARGETS kelvo_static EXPORT KelvoStaticTargets)
if(TARGET kelvo_qt)
  install(TARGETS kelvo_qt EXPORT KelvoQtTargets)
  install(EXPORT KelvoQtTargets NAMESPACE Kelvo:: DESTINATION ${package_dir})
else()
  set(without_qt PATTERN Qt.h EXCLUDE)
endif()
install(DIRECTORY include/kelvo TYPE INCLUDE ${without_qt})
install(EXPORT KelvoTargets NAMESPACE Kelvo:: DESTINATION ${package_dir})
install(EXPORT KelvoStaticTargets NAMESPACE Kelvo:: DESTINATION ${package_dir})
configure_package_config_file(cmake/KelvoConfig.cmake.in ${PROJECT_BINARY_DIR}/KelvoConfig.cmake
                              INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KelvoConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KelvoConfig.cmake ${PROJECT_BINARY_DIR}/KelvoConfigVersion.cmake
              cmake/KelvoBundle.cmake DESTINATION ${package_dir})

# The .pc files compute the prefix from their own location, so an installed tree can be moved.
file(RELATIVE_PATH to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
foreach(pc kelvo kelvo-static)
  configure_file(cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

if(KELVO_TOOLS)
  install(TARGETS kelvo-log kelvo-collector kelvo-inspect)
endif()
install(FILES README.md TYPE DOC)
install(DIRECTORY docs TYPE DOC)  # as a subdirectory, so that the links in README.md work

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kelvo)
set(CPACK_PACKAGE_CONTACT "The Kelvo developers <kelvo@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Client-side analytics for C++ applications")
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# The packages that a program with the static library links.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libsqlite3-dev, libcurl4-openssl-dev, libplist-dev, libfmt-dev, pkg-config")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "qt6-base-dev")
include(CPack)
