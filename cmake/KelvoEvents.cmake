# kelvo_add_events(<target> <file> [NAMESPACE <name>] [FORMS <form>...])
#
# Writes code from the registry of events <file> before `target` is built, and again when the file changes. A registry with a
# fault, or a call that it does not allow, fails the build. With `kelvo-events.json`, the target includes "kelvo-events.h".
#
#   NAMESPACE  of the functions; default: events
#   FORMS      cpp (default): <stem>.h for C++; c: <stem>-c.h; qml: <Stem>.qml, where "kelvo-events" gives KelvoEvents;
#              page: <stem>.md; expectations: <stem>-expectations.json. All are in the directory that the target's property
#              KELVO_EVENTS_DIR names; the headers are found by their names
#
# The program kelvo-events runs on the machine that builds: KELVO_EVENTS_PROGRAM names it. By default it is the one of this
# build, else an installed one (package kelvo-tools). A cross build needs an installed one.
function(kelvo_add_events target file)
  cmake_parse_arguments(PARSE_ARGV 2 ARG "" "NAMESPACE" "FORMS")
  if(NOT TARGET ${target})
    message(FATAL_ERROR "kelvo_add_events: there is no target ${target}")
  endif()
  if(ARG_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "kelvo_add_events: unknown arguments: ${ARG_UNPARSED_ARGUMENTS}")
  endif()
  get_filename_component(file "${file}" ABSOLUTE)
  if(NOT EXISTS "${file}")
    message(FATAL_ERROR "kelvo_add_events: there is no file ${file}")
  endif()
  if(NOT ARG_NAMESPACE)
    set(ARG_NAMESPACE events)
  endif()
  if(NOT ARG_FORMS)
    set(ARG_FORMS cpp)
  endif()
  _kelvo_events_program(program)

  get_filename_component(stem "${file}" NAME_WLE)
  string(REGEX MATCHALL "[A-Za-z0-9]+" words "${stem}")
  set(type "")
  foreach(word IN LISTS words)
    string(SUBSTRING "${word}" 0 1 first)
    string(SUBSTRING "${word}" 1 -1 rest)
    string(TOUPPER "${first}" first)
    string(APPEND type "${first}${rest}")
  endforeach()
  set(name_of_cpp "${stem}.h")
  set(name_of_c "${stem}-c.h")
  set(name_of_qml "${type}.qml")
  set(name_of_page "${stem}.md")
  set(name_of_expectations "${stem}-expectations.json")

  set(directory "${CMAKE_CURRENT_BINARY_DIR}/${target}-events")
  file(MAKE_DIRECTORY "${directory}")
  set(outputs "")
  foreach(form IN LISTS ARG_FORMS)
    if(NOT DEFINED name_of_${form})
      message(FATAL_ERROR "kelvo_add_events: the form ${form} is none of cpp, c, qml, page, expectations")
    endif()
    set(output "${directory}/${name_of_${form}}")
    add_custom_command(OUTPUT "${output}"
                       COMMAND ${program} ${form} "${file}" --namespace "${ARG_NAMESPACE}" --output "${output}"
                       DEPENDS "${file}" ${program} VERBATIM)
    list(APPEND outputs "${output}")
  endforeach()
  target_sources(${target} PRIVATE ${outputs})
  set_source_files_properties(${outputs} PROPERTIES SKIP_AUTOGEN ON)
  target_include_directories(${target} PRIVATE "${directory}")
  set_target_properties(${target} PROPERTIES KELVO_EVENTS_DIR "${directory}")
endfunction()

# Sets `result` to the target or the full path of kelvo-events.
function(_kelvo_events_program result)
  if(NOT KELVO_EVENTS_PROGRAM AND TARGET kelvo-events AND NOT CMAKE_CROSSCOMPILING)
    set(${result} kelvo-events PARENT_SCOPE)
    return()
  endif()
  # In a cross build, programs in the prefixes of libraries are for the other machine.
  set(where NO_CMAKE_PATH NO_CMAKE_FIND_ROOT_PATH)
  if(NOT CMAKE_CROSSCOMPILING)
    set(where HINTS "${Kelvo_DIR}/../../../bin" "${Kelvo_DIR}/../../../../bin")
  endif()
  find_program(KELVO_EVENTS_PROGRAM kelvo-events ${where})
  if(NOT KELVO_EVENTS_PROGRAM)
    message(FATAL_ERROR "kelvo_add_events: the program kelvo-events is not found; install the package kelvo-tools, or set "
                        "KELVO_EVENTS_PROGRAM to its path")
  endif()
  set(${result} "${KELVO_EVENTS_PROGRAM}" PARENT_SCOPE)
endfunction()
