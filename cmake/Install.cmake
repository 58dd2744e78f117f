# What a user of the project gets: the client library and its headers, the host runtime, the simulated device and the command
# line. The whole folder can be moved: programs and libraries find each other by $ORIGIN, the packages by their own place.
include(CMakePackageConfigHelpers)

set_target_properties(OrvelDelegateClient PROPERTIES EXPORT_NAME DelegateClient)
install(TARGETS OrvelDelegateClient vesk vesk_headers EXPORT OrvelDelegateClient)
install(TARGETS orvel-sim orvelctl)
install(DIRECTORY include/orvel platform/vesk/include/vesk DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN *.h)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/OrvelDelegateClient)
install(EXPORT OrvelDelegateClient NAMESPACE Orvel:: FILE OrvelDelegateClientConfig.cmake DESTINATION ${package_dir})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/OrvelDelegateClientConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/OrvelDelegateClientConfigVersion.cmake DESTINATION ${package_dir})

# The way from the .pc file up to the prefix, so that the file holds no absolute path.
file(RELATIVE_PATH prefix_from_pc /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/libOrvelDelegateClient.pc.in libOrvelDelegateClient.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/libOrvelDelegateClient.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
