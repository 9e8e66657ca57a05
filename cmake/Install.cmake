# Rules for `cmake --install` and `cpack -G DEB`. The components are also the Debian packages:
#   kelvo        the shared library
#   kelvo-c      the C interface to it
#   python3-kelvo  the package for Python
#   kelvo-dev    headers, static library, documents, and files for find_package and pkg-config
#   kelvo-qt     the adapter to Qt
#   kelvo-tools  the tools and their man pages
#   kelvo-server the service on PostgreSQL, its systemd unit, man page and documents
# `cmake --install BUILD --component NAME` installs one component, and needs only its targets.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME kelvo-dev)
set(CMAKE_INSTALL_DOCDIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/kelvo-dev)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Kelvo)
set(packages kelvo kelvo-c kelvo-dev)
install(TARGETS kelvo EXPORT KelvoTargets LIBRARY COMPONENT kelvo NAMELINK_COMPONENT kelvo-dev)
install(TARGETS kelvo-c EXPORT KelvoTargets LIBRARY COMPONENT kelvo-c NAMELINK_COMPONENT kelvo-dev)
install(TARGETS kelvo_static EXPORT KelvoStaticTargets)
install(TARGETS kelvo_headers EXPORT KelvoTargets)
install(DIRECTORY include/kelvo TYPE INCLUDE PATTERN "Qt*.h" EXCLUDE)
install(EXPORT KelvoTargets NAMESPACE Kelvo:: DESTINATION ${package_dir})
install(EXPORT KelvoStaticTargets NAMESPACE Kelvo:: DESTINATION ${package_dir})
configure_package_config_file(cmake/KelvoConfig.cmake.in ${PROJECT_BINARY_DIR}/KelvoConfig.cmake
                              INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KelvoConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KelvoConfig.cmake ${PROJECT_BINARY_DIR}/KelvoConfigVersion.cmake
              cmake/KelvoBundle.cmake cmake/KelvoPlugin.cmake cmake/KelvoEvents.cmake DESTINATION ${package_dir})
install(FILES README.md SECURITY.md TYPE DOC)
install(DIRECTORY docs TYPE DOC)  # as a subdirectory, so that the links in README.md work

# The .pc files compute the prefix from their own location, so an installed tree can be moved.
file(RELATIVE_PATH to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
foreach(pc kelvo kelvo-c kelvo-static)
  configure_file(cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

if(KELVO_TEST_KIT AND PROJECT_IS_TOP_LEVEL)
  install(TARGETS kelvo_testing EXPORT KelvoTestingTargets)
  install(EXPORT KelvoTestingTargets NAMESPACE Kelvo:: DESTINATION ${package_dir})
  install(TARGETS kelvo-c-testing EXPORT KelvoCTestingTargets)
  install(EXPORT KelvoCTestingTargets NAMESPACE Kelvo:: DESTINATION ${package_dir})
  configure_file(cmake/kelvo-c-testing.pc.in ${PROJECT_BINARY_DIR}/kelvo-c-testing.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/kelvo-c-testing.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endif()
if(TARGET kelvo_qt)
  list(APPEND packages kelvo-qt)
  install(TARGETS kelvo_qt kelvo_qtgui EXPORT KelvoQtTargets COMPONENT kelvo-qt)
  install(EXPORT KelvoQtTargets NAMESPACE Kelvo:: DESTINATION ${package_dir} COMPONENT kelvo-qt)
  if(TARGET kelvo_qt_testing)
    install(TARGETS kelvo_qt_testing kelvo_qtgui_testing EXPORT KelvoQtTestingTargets COMPONENT kelvo-qt)
    install(EXPORT KelvoQtTestingTargets NAMESPACE Kelvo:: DESTINATION ${package_dir} COMPONENT kelvo-qt)
  endif()
  install(FILES include/kelvo/Qt.h include/kelvo/QtGui.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kelvo COMPONENT kelvo-qt)
endif()
if(TARGET kelvo_quick)
  install(TARGETS kelvo_quick EXPORT KelvoQuickTargets COMPONENT kelvo-qt)
  install(EXPORT KelvoQuickTargets NAMESPACE Kelvo:: DESTINATION ${package_dir} COMPONENT kelvo-qt)
  if(TARGET kelvo_quick_testing)
    install(TARGETS kelvo_quick_testing EXPORT KelvoQuickTestingTargets COMPONENT kelvo-qt)
    install(EXPORT KelvoQuickTestingTargets NAMESPACE Kelvo:: DESTINATION ${package_dir} COMPONENT kelvo-qt)
  endif()
  install(DIRECTORY src/adapters/quick/module/ DESTINATION ${CMAKE_INSTALL_LIBDIR}/qt6/qml/Kelvo COMPONENT kelvo-qt)
endif()

if(PROJECT_IS_TOP_LEVEL)
  list(APPEND packages python3-kelvo)
  set(python_dir lib/python3/dist-packages)  # Debian's Python looks there, whatever its version is
  install(DIRECTORY bindings/python/kelvo DESTINATION ${python_dir} COMPONENT python3-kelvo PATTERN __pycache__ EXCLUDE)
  install(FILES bindings/python/pytest_kelvo.py DESTINATION ${python_dir} COMPONENT python3-kelvo)
  file(CONFIGURE OUTPUT PKG-INFO CONTENT "Metadata-Version: 2.1\nName: kelvo\nVersion: @PROJECT_VERSION@\n" @ONLY)
  file(WRITE ${PROJECT_BINARY_DIR}/entry_points.txt "[pytest11]\nkelvo = pytest_kelvo\n")
  install(FILES ${PROJECT_BINARY_DIR}/PKG-INFO ${PROJECT_BINARY_DIR}/entry_points.txt COMPONENT python3-kelvo
          DESTINATION ${python_dir}/kelvo-${PROJECT_VERSION}.egg-info)
endif()

# kelvo_install_program(<program> <component> <summary>): installs the program and a man page that is its --help. The page is
# appended to the list <component>_pages.
function(kelvo_install_program program component summary)
  set(page ${PROJECT_BINARY_DIR}/man/${program}.1)
  add_custom_command(
    OUTPUT ${page}.gz
    COMMAND ${CMAKE_COMMAND} -DTOOL=$<TARGET_FILE:${program}> -DSUMMARY=${summary} -DTO=${page}
            -P ${PROJECT_SOURCE_DIR}/cmake/ManPage.cmake
    COMMAND gzip -9nf ${page}
    DEPENDS ${program} ${PROJECT_SOURCE_DIR}/cmake/ManPage.cmake
    VERBATIM)
  set(${component}_pages ${${component}_pages} ${page}.gz PARENT_SCOPE)
  install(TARGETS ${program} COMPONENT ${component})
  install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${component})
endfunction()

if(KELVO_TOOLS)
  list(APPEND packages kelvo-tools)
  kelvo_install_program(kelvo-log kelvo-tools "play the calls of a host from the shell")
  kelvo_install_program(kelvo-collector kelvo-tools "local analytics service for development and tests")
  kelvo_install_program(kelvo-inspect kelvo-tools "show what a Kelvo home stores, or why nothing arrives")
  kelvo_install_program(kelvo-events kelvo-tools "check a registry of events and write code from it")
  add_custom_target(kelvo-tools ALL DEPENDS ${kelvo-tools_pages})
endif()
if(TARGET kelvo-server)
  list(APPEND packages kelvo-server)
  kelvo_install_program(kelvo-server kelvo-server "analytics service on PostgreSQL")
  add_custom_target(kelvo-server-pages ALL DEPENDS ${kelvo-server_pages})
  install(FILES packaging/kelvo-server@.service DESTINATION lib/systemd/system COMPONENT kelvo-server)
  install(FILES README.md SECURITY.md DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/kelvo-server COMPONENT kelvo-server)
  install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/kelvo-server COMPONENT kelvo-server)
endif()
# The targets kelvo, kelvo-c, kelvo-tools and kelvo-server are also components. These are the others.
add_custom_target(python3-kelvo)
add_custom_target(kelvo-dev DEPENDS kelvo kelvo-c kelvo_static $<TARGET_NAME_IF_EXISTS:kelvo_testing>
                                   $<TARGET_NAME_IF_EXISTS:kelvo-c-testing>)
if(TARGET kelvo_qt)
  add_custom_target(kelvo-qt DEPENDS kelvo_qt kelvo_qtgui $<TARGET_NAME_IF_EXISTS:kelvo_qt_testing>)
endif()
if(TARGET kelvo_quick)
  add_custom_target(kelvo-quick DEPENDS kelvo_quick $<TARGET_NAME_IF_EXISTS:kelvo_quick_testing>)
  add_dependencies(kelvo-qt kelvo-quick)
endif()

set(changelog ${PROJECT_BINARY_DIR}/changelog)
configure_file(packaging/changelog ${changelog} COPYONLY)
execute_process(COMMAND gzip -9nkf ${changelog} COMMAND_ERROR_IS_FATAL ANY)
foreach(package IN LISTS packages)
  install(FILES ${changelog}.gz DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${package})
endforeach()

if(NOT PROJECT_IS_TOP_LEVEL)
  return()  # the packages are the host's
endif()
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kelvo)
set(CPACK_PACKAGE_CONTACT "The Kelvo developers <kelvo@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "client-side analytics for C++ applications")
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL ${packages})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src)  # of the packages' own libraries
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)

# kelvo_package(<component> <section> <depends> <recommends> <summary> <description>)
function(kelvo_package component section depends recommends summary description)
  string(TOUPPER ${component} name)
  set(CPACK_DEBIAN_${name}_PACKAGE_NAME ${component} PARENT_SCOPE)
  set(CPACK_DEBIAN_${name}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_DEBIAN_${name}_PACKAGE_DEPENDS "${depends}" PARENT_SCOPE)
  set(CPACK_DEBIAN_${name}_PACKAGE_RECOMMENDS "${recommends}" PARENT_SCOPE)
  set(CPACK_DEBIAN_${name}_DESCRIPTION "${summary}\n${description}" PARENT_SCOPE)
endfunction()
set(same "(= ${PROJECT_VERSION})")
# No header of the library's file names libcurl, which it loads: the package that has it is a dependency by hand. The
# library needs options of 7.85.
set(curl_package "")
if(KELVO_LIBCURL)
  get_target_property(file CURL::libcurl LOCATION)
  file(REAL_PATH ${file} file)
  execute_process(COMMAND dpkg-query -S ${file} OUTPUT_VARIABLE owner ERROR_QUIET)
  if(owner MATCHES "^([^:, ]+)")
    set(curl_package "${CMAKE_MATCH_1} (>= 7.85)")
  endif()
endif()
kelvo_package(kelvo libs "${curl_package}" "" "client-side analytics for C++ applications (library)"
  "Kelvo records sessions, screens, events and errors of an application in a\nlocal database, and uploads them over HTTPS.")
set(CPACK_DEBIAN_KELVO_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
kelvo_package(kelvo-c libs "kelvo ${same}" "" "client-side analytics for C and other languages (library)"
  "The C interface of Kelvo, for programs in C and bindings to other languages.")
set(CPACK_DEBIAN_KELVO-C_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
kelvo_package(python3-kelvo python "python3:any (>= 3.9), kelvo-c ${same}" ""
  "client-side analytics for Python applications"
  "The package kelvo, in pure Python on top of the C interface.")
set(CPACK_DEBIAN_PYTHON3-KELVO_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON3-KELVO_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/python3-kelvo/postinst
                                                     ${PROJECT_SOURCE_DIR}/packaging/python3-kelvo/prerm)
# The recommended packages are those that a program with the static library links.
kelvo_package(kelvo-dev libdevel "kelvo ${same}, kelvo-c ${same}"
  "libsqlite3-dev, libcurl4-openssl-dev, libplist-dev, libfmt-dev, pkg-config"
  "client-side analytics for C++ applications (development)"
  "Headers, the static library, the libraries for tests, the documents, and the\nfiles for CMake and pkg-config.")
set(CPACK_DEBIAN_KELVO-DEV_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
kelvo_package(kelvo-qt libdevel "kelvo-dev ${same}, qt6-base-dev" ""
  "client-side analytics for C++ applications (adapter to Qt 6)"
  "The adapter reports the windows and the activity of a Qt Widgets application.")
kelvo_package(kelvo-tools devel "" "" "client-side analytics for C++ applications (tools)"
  "kelvo-log plays host calls, kelvo-collector is a local service,\nkelvo-inspect shows what is stored, and kelvo-events checks a registry\nof events.")
kelvo_package(kelvo-server net "" "postgresql (>= 15), libnss-systemd"
  "client-side analytics for C++ applications (service)"
  "The service stores each event once in PostgreSQL, with any number of\ninstances, and answers while the database is away with 503.")
include(CPack)
