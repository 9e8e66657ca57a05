# A host that adds Kelvo as a sub-project may link the static library, which names these targets.
set(CMAKE_FIND_PACKAGE_TARGETS_GLOBAL ON)
find_package(Threads REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(CURL REQUIRED)
find_package(Boost 1.81 REQUIRED)
find_package(fmt REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET GLOBAL libplist-2.0)
# The name under which the shared library loads libcurl. Empty if libcurl is no shared library or part of the host's build:
# then the shared library links it.
set(KELVO_LIBCURL "")
get_target_property(imported CURL::libcurl IMPORTED)
if(imported AND CMAKE_READELF)
  get_target_property(file CURL::libcurl LOCATION)
  execute_process(COMMAND ${CMAKE_READELF} -d ${file} OUTPUT_VARIABLE dynamic ERROR_QUIET)
  if(dynamic MATCHES "\\(SONAME\\)[^[]*\\[([^]]+)\\]")
    set(KELVO_LIBCURL ${CMAKE_MATCH_1})
  endif()
endif()
# Qt is optional: without it, the adapters to Qt are not built.
if(KELVO_QT)
  find_package(Qt6 QUIET COMPONENTS Widgets OPTIONAL_COMPONENTS Quick)
endif()
