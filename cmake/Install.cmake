# What a user of the project gets: the client library and the host runtime, what it takes to build against them, the
# simulated device, the command line, documents and examples. The whole folder can be moved: programs and libraries find
# each other by $ORIGIN, the files for CMake and pkg-config by their own place. debian/*.install says what is in which
# Debian package.
include(CMakePackageConfigHelpers)

set_target_properties(OrvelDelegateClient PROPERTIES EXPORT_NAME DelegateClient)
# The loader finds what is in the system's own folders; a search path of its own could only lead it elsewhere.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set_target_properties(OrvelDelegateClient orvelctl PROPERTIES INSTALL_RPATH "${AndroidLibs_LIBRARY_DIR}")
  set_target_properties(vesk orvel-sim PROPERTIES INSTALL_RPATH "")  # these need nothing of Android's
endif()
install(TARGETS OrvelDelegateClient vesk vesk_headers EXPORT OrvelDelegateClient
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS orvel-sim orvelctl)
install(DIRECTORY include/orvel platform/vesk/include/vesk DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN *.h)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/OrvelDelegateClient)
install(EXPORT OrvelDelegateClient NAMESPACE Orvel:: FILE OrvelDelegateClientTargets.cmake DESTINATION ${package_dir})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/OrvelDelegateClientConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
configure_file(cmake/OrvelDelegateClientConfig.cmake.in OrvelDelegateClientConfig.cmake COPYONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/OrvelDelegateClientConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/OrvelDelegateClientConfigVersion.cmake DESTINATION ${package_dir})

if(TARGET OrvelTestDevice)
  install(TARGETS OrvelTestDevice EXPORT OrvelTestDevice)
  install(EXPORT OrvelTestDevice NAMESPACE Orvel:: FILE OrvelTestDeviceTargets.cmake DESTINATION ${package_dir})
  install(FILES cmake/FindAndroidLibs.cmake cmake/OrvelTestDeviceTsan.cmake DESTINATION ${package_dir})
  set(ORVEL_TESTDEVICE_TSAN "" CACHE FILEPATH
    "The test kit's archive of another build, with ORVEL_SANITIZE=thread, to be installed beside this one's")
  if(ORVEL_TESTDEVICE_TSAN)
    install(FILES ${ORVEL_TESTDEVICE_TSAN} DESTINATION ${CMAKE_INSTALL_LIBDIR} RENAME libOrvelTestDevice_tsan.a)
  endif()
  install(DIRECTORY testdevice/include/orvel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    FILES_MATCHING PATTERN *.h)
endif()

# The way from the .pc file up to the prefix, so that the file holds no absolute path. Debian's is the system's own
# folder, which compilers must be told of by no other name.
file(RELATIVE_PATH prefix_from_pc /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
set(pc_prefix \${pcfiledir}/${prefix_from_pc})
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(pc_prefix /usr)
endif()
set(pc_files libOrvelDelegateClient)
if(TARGET OrvelTestDevice)
  list(APPEND pc_files libOrvelTestDevice)
  if(ORVEL_TESTDEVICE_TSAN)
    list(APPEND pc_files libOrvelTestDevice_tsan)
  endif()
endif()
foreach(file ${pc_files})
  string(REPLACE "_tsan" "" template ${file})
  string(REGEX REPLACE "^lib" "" pc_library ${file})
  set(pc_sanitize "")
  if(NOT template STREQUAL file)
    set(pc_sanitize " -fsanitize=thread")
  endif()
  configure_file(cmake/${template}.pc.in ${file}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${file}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

# The programs write their own manual pages, and the schema of scenarios; not where they cannot run.
if(NOT CMAKE_CROSSCOMPILING)
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/man)
  foreach(program orvelctl orvel-sim)
    set(page ${CMAKE_BINARY_DIR}/man/${program}.1)
    add_custom_command(OUTPUT ${page}.gz COMMAND ${program} --man-page > ${page} COMMAND gzip -9nkf ${page}
      BYPRODUCTS ${page} DEPENDS ${program} VERBATIM COMMENT "Writing the manual page of ${program}")
    list(APPEND pages ${page}.gz)
  endforeach()
  add_custom_target(man ALL DEPENDS ${pages})
  install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

  set(schema ${CMAKE_BINARY_DIR}/scenario.schema.json)
  add_custom_command(OUTPUT ${schema} COMMAND orvel-sim schema > ${schema} DEPENDS orvel-sim VERBATIM
    COMMENT "Writing the schema of scenarios")
  add_custom_target(schema ALL DEPENDS ${schema})
  install(FILES ${schema} DESTINATION ${CMAKE_INSTALL_DATADIR}/orvel)
endif()

set(completions ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
foreach(program orvelctl orvel-sim)
  install(FILES tools/cli/completion.bash DESTINATION ${completions} RENAME ${program})
endforeach()
install(FILES tools/cli/failure.schema.json DESTINATION ${CMAKE_INSTALL_DATADIR}/orvel)
install(DIRECTORY device/scenarios DESTINATION ${CMAKE_INSTALL_DATADIR}/orvel FILES_MATCHING PATTERN *.json)

# As they lie in the project, so that the documents' links lead somewhere.
install(FILES README.md CHANGELOG.md CONTRIBUTING.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} FILES_MATCHING PATTERN *.md PATTERN reference.md EXCLUDE)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR})
