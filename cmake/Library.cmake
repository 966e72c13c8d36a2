# How the libraries declare what a development package needs to know of them.

# gantrel_public_headers(TARGET HEADER...): the headers meant for applications. They are installed; a
# public header includes only public ones and those of the language.
function(gantrel_public_headers target)
  target_sources(${target} PUBLIC FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR} FILES ${ARGN})
endfunction()

# gantrel_system_library(NAME MODULE...): the system's libraries that pkg-config knows as MODULE..., as the
# target PkgConfig::NAME. Who links an installed library looks for them again, by the same names.
macro(gantrel_system_library name)
  pkg_check_modules(${name} REQUIRED IMPORTED_TARGET GLOBAL ${ARGN})
  set_target_properties(PkgConfig::${name} PROPERTIES GANTREL_MODULES "${ARGN}")
endmacro()

# gantrel_libraries_below(LIBRARIES SYSTEM_LIBRARIES ROOT...): everything that the targets ROOT... link, and
# they themselves: this project's libraries, each before those that it stands on, and the system's.
function(gantrel_libraries_below libraries system_libraries)
  set(pending ${ARGN})
  set(ours "")
  set(system "")
  while(pending)
    list(POP_FRONT pending target)
    if(target MATCHES "^PkgConfig::")
      list(APPEND system ${target})
      continue()
    endif()
    # One that is met again moves behind whatever stands on it.
    list(REMOVE_ITEM ours ${target})
    list(APPEND ours ${target})
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "INTERFACE_LIBRARY")
      get_target_property(links ${target} INTERFACE_LINK_LIBRARIES)
    else()
      get_target_property(links ${target} LINK_LIBRARIES)
    endif()
    list(FILTER links INCLUDE REGEX "^(Gantrel|PkgConfig)::")
    list(APPEND pending ${links})
  endwhile()
  list(REMOVE_DUPLICATES system)
  set(${libraries} "${ours}" PARENT_SCOPE)
  set(${system_libraries} "${system}" PARENT_SCOPE)
endfunction()
