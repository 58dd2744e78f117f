# What a user of the project gets, in three parts that are packages too (Packages.cmake): lib, the client library and the host
# runtime; dev, what it takes to build against them; tools, the simulated device and the command line. The whole folder can be
# moved: programs and libraries find each other by $ORIGIN, the packages by their own place.
include(CMakePackageConfigHelpers)

set_target_properties(OrvelDelegateClient PROPERTIES EXPORT_NAME DelegateClient)
# The loader finds what is in the system's own folders; a search path of its own could only lead it elsewhere.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set_target_properties(OrvelDelegateClient vesk orvelctl orvel-sim PROPERTIES INSTALL_RPATH "${AndroidLibs_LIBRARY_DIR}")
  set_target_properties(vesk orvel-sim PROPERTIES INSTALL_RPATH "")  # these need nothing of Android's
endif()
install(TARGETS OrvelDelegateClient vesk vesk_headers EXPORT OrvelDelegateClient
  LIBRARY COMPONENT lib NAMELINK_COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS orvel-sim orvelctl COMPONENT tools)
install(DIRECTORY include/orvel platform/vesk/include/vesk DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev
  FILES_MATCHING PATTERN *.h)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/OrvelDelegateClient)
install(EXPORT OrvelDelegateClient NAMESPACE Orvel:: FILE OrvelDelegateClientTargets.cmake DESTINATION ${package_dir}
  COMPONENT dev)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/OrvelDelegateClientConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
configure_file(cmake/OrvelDelegateClientConfig.cmake.in OrvelDelegateClientConfig.cmake COPYONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/OrvelDelegateClientConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/OrvelDelegateClientConfigVersion.cmake DESTINATION ${package_dir} COMPONENT dev)

if(TARGET OrvelTestDevice)
  install(TARGETS OrvelTestDevice EXPORT OrvelTestDevice ARCHIVE COMPONENT dev)
  install(EXPORT OrvelTestDevice NAMESPACE Orvel:: FILE OrvelTestDeviceTargets.cmake DESTINATION ${package_dir}
    COMPONENT dev)
  install(FILES cmake/FindAndroidLibs.cmake DESTINATION ${package_dir} COMPONENT dev)
  install(DIRECTORY testdevice/include/orvel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev
    FILES_MATCHING PATTERN *.h)
endif()

# The way from the .pc file up to the prefix, so that the file holds no absolute path.
file(RELATIVE_PATH prefix_from_pc /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/libOrvelDelegateClient.pc.in libOrvelDelegateClient.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/libOrvelDelegateClient.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT dev)

# The programs write their own manual pages; not where they cannot run.
if(NOT CMAKE_CROSSCOMPILING)
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/man)
  foreach(program orvelctl orvel-sim)
    set(page ${CMAKE_BINARY_DIR}/man/${program}.1)
    add_custom_command(OUTPUT ${page}.gz COMMAND ${program} --man-page > ${page} COMMAND gzip -9nkf ${page}
      BYPRODUCTS ${page} DEPENDS ${program} VERBATIM COMMENT "Writing the manual page of ${program}")
    list(APPEND pages ${page}.gz)
  endforeach()
  add_custom_target(man ALL DEPENDS ${pages})
  install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endif()

set(completions ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
foreach(program orvelctl orvel-sim)
  install(FILES tools/cli/completion.bash DESTINATION ${completions} RENAME ${program} COMPONENT tools)
endforeach()
install(FILES tools/cli/failure.schema.json DESTINATION ${CMAKE_INSTALL_DATADIR}/orvel COMPONENT tools)
install(DIRECTORY sim/scenarios DESTINATION ${CMAKE_INSTALL_DATADIR}/orvel COMPONENT tools FILES_MATCHING PATTERN *.json)
