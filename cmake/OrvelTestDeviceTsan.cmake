# ThreadSanitizer must have compiled everything that it looks at, the test kit too. Orvel::TestDeviceTsan is the kit so,
# and has its users compiled with ThreadSanitizer; Orvel::TestDevice is the same archive in projects that have the
# option in their flags.
set(_orvel_archive "${CMAKE_CURRENT_LIST_DIR}/../../libOrvelTestDevice_tsan.a")
get_directory_property(_orvel_flags COMPILE_OPTIONS)
string(TOUPPER "${CMAKE_BUILD_TYPE}" _orvel_config)
string(APPEND _orvel_flags " ${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_${_orvel_config}}")
if(NOT EXISTS "${_orvel_archive}")
  if(_orvel_flags MATCHES "-fsanitize=[a-z,-]*thread")
    message(WARNING "The test kit that is installed is not compiled with ThreadSanitizer, which will report races in "
      "it that there are not; docs/testing.md says how to install the other one")
  endif()
  return()
endif()

if(_orvel_flags MATCHES "-fsanitize=[a-z,-]*thread")
  get_target_property(_orvel_configs Orvel::TestDevice IMPORTED_CONFIGURATIONS)
  foreach(_orvel_config ${_orvel_configs})
    set_target_properties(Orvel::TestDevice PROPERTIES IMPORTED_LOCATION_${_orvel_config} "${_orvel_archive}")
  endforeach()
endif()
if(NOT TARGET Orvel::TestDeviceTsan)
  add_library(Orvel::TestDeviceTsan STATIC IMPORTED)
  foreach(_orvel_property INTERFACE_INCLUDE_DIRECTORIES INTERFACE_LINK_LIBRARIES)
    get_target_property(_orvel_value Orvel::TestDevice ${_orvel_property})
    set_target_properties(Orvel::TestDeviceTsan PROPERTIES ${_orvel_property} "${_orvel_value}")
  endforeach()
  set_target_properties(Orvel::TestDeviceTsan PROPERTIES IMPORTED_LOCATION "${_orvel_archive}"
    IMPORTED_LINK_INTERFACE_LANGUAGES CXX
    INTERFACE_COMPILE_OPTIONS -fsanitize=thread INTERFACE_LINK_OPTIONS -fsanitize=thread)
endif()
