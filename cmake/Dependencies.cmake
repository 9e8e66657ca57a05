# A host that adds Kelvo as a sub-project may link the static library, which names these targets.
set(CMAKE_FIND_PACKAGE_TARGETS_GLOBAL ON)
find_package(Threads REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(CURL REQUIRED)
find_package(Boost 1.81 REQUIRED)
find_package(fmt REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET GLOBAL libplist-2.0)
# Qt is optional: without it, the adapter to Qt is not built.
if(KELVO_QT)
  find_package(Qt6 QUIET COMPONENTS Widgets)
endif()
