# kelvo_add_plugin(<target> [NAME <class>] [HOST <executable>] [<source>...])
#
# Makes the shared object `libkelvo-<class>.so`, a module that links Kelvo::kelvo and hides its symbols. Its sources
# define one plug-in and register it with KELVO_PLUGIN. Further sources and libraries: target_sources and
# target_link_libraries.
#
#   NAME   the plug-in's class, without namespaces; default: the target's name
#   HOST   the executable whose bundle gets the shared object. It must link Kelvo::kelvo: programs with the static library
#          load no shared objects. The plug-in is also switched on in the Info.plist, if kelvo_add_bundle writes it.
#          Building the executable builds the plug-in.
function(kelvo_add_plugin target)
  cmake_parse_arguments(ARG "" "NAME;HOST" "" ${ARGN})
  if(NOT ARG_NAME)
    set(ARG_NAME ${target})
  endif()
  if(NOT ARG_NAME MATCHES "^[A-Za-z_][A-Za-z0-9_]*$")
    message(FATAL_ERROR "kelvo_add_plugin: ${ARG_NAME} is no name of a class; write it without namespaces, or give NAME")
  endif()
  if(ARG_HOST)
    set(type "")
    if(TARGET ${ARG_HOST})
      get_target_property(type ${ARG_HOST} TYPE)
    endif()
    if(NOT type STREQUAL "EXECUTABLE")
      message(FATAL_ERROR "kelvo_add_plugin: HOST ${ARG_HOST} is no executable of this project")
    endif()
  endif()

  add_library(${target} MODULE ${ARG_UNPARSED_ARGUMENTS})
  target_link_libraries(${target} PRIVATE Kelvo::kelvo)
  # The host has loaded Kelvo already, so the object needs no path to it, and no path of the build gets into the bundle.
  set_target_properties(${target} PROPERTIES PREFIX lib OUTPUT_NAME kelvo-${ARG_NAME} SUFFIX .so DEBUG_POSTFIX ""
                                             CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
                                             BUILD_WITH_INSTALL_RPATH ON)
  if(ARG_HOST)
    set_target_properties(${target} PROPERTIES LIBRARY_OUTPUT_DIRECTORY "$<TARGET_FILE:${ARG_HOST}>.bundle")
    add_dependencies(${ARG_HOST} ${target})
    set_property(TARGET ${ARG_HOST} APPEND PROPERTY KELVO_PLUGINS ${ARG_NAME})
  endif()
endfunction()
