# Warnings and sanitizers apply to our own code only, never to a consumer's. Inside another project, no warning of our
# code is an error: the option comes after the host's own -Werror, and its compiler may know warnings that ours does not.
add_library(kelvo_flags INTERFACE)
target_compile_options(kelvo_flags INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow)
if(PROJECT_IS_TOP_LEVEL)
  target_compile_options(kelvo_flags INTERFACE -Werror)
else()
  target_compile_options(kelvo_flags INTERFACE -Wno-error)
endif()
# GCC 12 warns falsely: of an uninitialised index wherever a std::optional of a std::variant is moved, and of
# overlapping memory where a literal and a std::string are added.
target_compile_options(kelvo_flags INTERFACE "$<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized;-Wno-restrict>")
if(KELVO_SANITIZE)
  target_compile_options(kelvo_flags INTERFACE -fsanitize=${KELVO_SANITIZE} -fno-omit-frame-pointer
                                               -fno-sanitize-recover=all)
  target_link_options(kelvo_flags INTERFACE -fsanitize=${KELVO_SANITIZE})
endif()

# kelvo_component(<folder> LINKS ...): the sources of one folder of src/. LINKS names the folders and packages that it
# may include from. The archives serve tests and tools; the library itself is made of their objects.
function(kelvo_component name)
  cmake_parse_arguments(ARG "" "" "LINKS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS *.cpp)
  add_library(kelvo_${name} STATIC ${sources})
  target_include_directories(kelvo_${name} PUBLIC ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/include)
  target_link_libraries(kelvo_${name} PUBLIC ${ARG_LINKS} PRIVATE kelvo_flags)
  # A guest is small: a release is built for size, and in sections of which the linker keeps those that are used.
  target_compile_options(kelvo_${name} PRIVATE
                         "$<$<CONFIG:Release,MinSizeRel>:-Os;-ffunction-sections;-fdata-sections>")
endfunction()

# kelvo_hot(<file> ...): what runs on the caller's thread in every call. A release builds it for speed, without the
# inlining that makes it several times the size: a third off a call, for about 12 kB.
function(kelvo_hot)
  set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS
                              "$<$<CONFIG:Release>:-O2;$<$<CXX_COMPILER_ID:GNU>:-finline-limit=40>>")
endfunction()
