# kesto_add_library(<target> OUTPUT <name> INCLUDE <dir> SOURCES <glob dirs...>)
#
# One shared library of the family: sources are found under the given
# directories (each library keeps one folder per subsystem, and new files are
# picked up at the next build), public headers under INCLUDE, which is also
# what gets installed.
function(kesto_add_library target)
  cmake_parse_arguments(ARG "" "OUTPUT;INCLUDE" "SOURCES" ${ARGN})
  set(sources)
  foreach(dir IN LISTS ARG_SOURCES)
    file(GLOB_RECURSE found CONFIGURE_DEPENDS ${dir}/*.cpp ${dir}/*.c)
    list(APPEND sources ${found})
  endforeach()
  add_library(${target} SHARED ${sources})
  add_library(EventKesto::${target} ALIAS ${target})
  set_target_properties(${target} PROPERTIES
    OUTPUT_NAME ${ARG_OUTPUT}
    VERSION ${PROJECT_VERSION}
    SOVERSION ${KESTO_SOVERSION}
    EXPORT_NAME ${target}
    # Only what a public header marks with the library's export macro is
    # exported; everything else binds inside the library.
    C_VISIBILITY_PRESET hidden
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    # Installed side by side, the libraries find each other where they are:
    # a program that names only libEventKesto's folder in its run path (or
    # none, when the folder is a system one) loads the whole family.
    INSTALL_RPATH "$ORIGIN")
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${ARG_INCLUDE}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${target} PRIVATE kesto_build_flags)
  # Calls between functions of one library go direct, and may be inlined,
  # rather than through the PLT: nothing of ours is meant to be interposed.
  target_compile_options(${target} PRIVATE -fno-semantic-interposition)
  set_property(GLOBAL APPEND PROPERTY KESTO_INSTALL_TARGETS ${target})
  set_property(GLOBAL APPEND PROPERTY KESTO_INSTALL_INCLUDES ${ARG_INCLUDE})
endfunction()
