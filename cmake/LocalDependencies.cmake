# Finds the packages that scripts/install-dependencies has unpacked into build/deps, before the system's own. Programs
# that are built with them also run with them: a DT_RPATH serves the libraries of libraries, too.
set(deps ${PROJECT_SOURCE_DIR}/build/deps/usr)
if(NOT EXISTS ${deps})
  return()
endif()
message(STATUS "Packages in ${deps} come first")
set(libraries ${deps}/lib/${CMAKE_LIBRARY_ARCHITECTURE})
list(PREPEND CMAKE_PREFIX_PATH ${deps})
include_directories(SYSTEM ${deps}/include ${deps}/include/${CMAKE_LIBRARY_ARCHITECTURE})
list(APPEND CMAKE_BUILD_RPATH ${libraries})
list(APPEND CMAKE_INSTALL_RPATH ${libraries})
add_link_options(LINKER:--disable-new-dtags "LINKER:-rpath-link,${libraries}")
# For the program pkg-config of build/deps.
set(ENV{PATH} "$ENV{PATH}:${deps}/bin")
set(ENV{LD_LIBRARY_PATH} "${libraries}:$ENV{LD_LIBRARY_PATH}")
