# Android's liblog and libutils as Debian packages them: headers under include/android, libraries in a multiarch
# "android" folder that is on no search path. Gives the targets Android::log and Android::utils.
find_path(AndroidLibs_INCLUDE_DIR NAMES utils/String8.h PATH_SUFFIXES android)
find_library(AndroidLibs_log_LIBRARY NAMES log PATH_SUFFIXES ${CMAKE_LIBRARY_ARCHITECTURE}/android android)
find_library(AndroidLibs_utils_LIBRARY NAMES utils PATH_SUFFIXES ${CMAKE_LIBRARY_ARCHITECTURE}/android android)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(AndroidLibs
  REQUIRED_VARS AndroidLibs_log_LIBRARY AndroidLibs_utils_LIBRARY AndroidLibs_INCLUDE_DIR
  REASON_FAILURE_MESSAGE "install android-liblog-dev and android-libutils-dev")
mark_as_advanced(AndroidLibs_INCLUDE_DIR AndroidLibs_log_LIBRARY AndroidLibs_utils_LIBRARY)

if(AndroidLibs_FOUND)
  get_filename_component(AndroidLibs_LIBRARY_DIR ${AndroidLibs_log_LIBRARY} DIRECTORY)
  foreach(library log utils)
    if(NOT TARGET Android::${library})
      add_library(Android::${library} SHARED IMPORTED)
      set_target_properties(Android::${library} PROPERTIES
        IMPORTED_LOCATION ${AndroidLibs_${library}_LIBRARY}
        INTERFACE_INCLUDE_DIRECTORIES ${AndroidLibs_INCLUDE_DIR})
      # Their own needs (libbase, libc++abi substitutes) live in the same folder.
      target_link_options(Android::${library} INTERFACE -Wl,-rpath-link,${AndroidLibs_LIBRARY_DIR})
    endif()
  endforeach()
endif()
