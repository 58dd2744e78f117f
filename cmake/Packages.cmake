# Three Debian packages out of what Install.cmake installs, by `cpack` in a build folder with the prefix /usr; scripts/package
# does all of it. docs/packages.md says what is in which.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR Quarlo)
set(CPACK_PACKAGE_CONTACT "Quarlo <orvel@quarlo.example>")
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own
set(CPACK_COMPONENTS_ALL lib dev tools)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE orvel-delegate-client)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# What a component is called and needs, and what `apt show` says of it.
function(orvel_package component name section summary text)
  string(TOUPPER ${component} key)
  set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${name} PARENT_SCOPE)
  set(CPACK_DEBIAN_${key}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_DEBIAN_${key}_DESCRIPTION "${summary}\n${text}" PARENT_SCOPE)
  install(FILES packaging/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
  install(FILES ${CMAKE_BINARY_DIR}/changelog.gz DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
  if(EXISTS ${PROJECT_SOURCE_DIR}/packaging/${name}.lintian-overrides)
    install(FILES packaging/${name}.lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
      RENAME ${name} COMPONENT ${component})
  endif()
endfunction()

orvel_package(lib liborveldelegateclient1 libs "client of a device's platform services"
"A native process reaches the platform services of an Orvel device through
this library: identity, settings, screen and power, packages and processes,
intents, the voice assistant and metrics.
.
With it comes the runtime of the message library underneath that stands in
for the device's own on a workstation.")
orvel_package(dev liborveldelegateclient-dev libdevel "client of a device's platform services - development files"
"A native process reaches the platform services of an Orvel device through
this library: identity, settings, screen and power, packages and processes,
intents, the voice assistant and metrics.
.
This package has what it takes to build such a client: headers, files for
CMake and pkg-config, and the simulated device as a library that a client's
tests link.")
orvel_package(tools orvel-tools utils "simulated device and command line for Orvel clients"
"A client of an Orvel device's platform services can be built and tried with
no device at hand: orvel-sim simulates one, which can be changed and broken
while it runs, and orvelctl asks and watches a device from a shell.")

set(exact "(= ${PROJECT_VERSION})")
# What other packages depend on that use the libraries. Left to cpack, it would bring scripts that call ldconfig, as the trigger
# does already.
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/control/shlibs CONTENT "\
libOrvelDelegateClient ${PROJECT_VERSION_MAJOR} liborveldelegateclient1 (>= ${PROJECT_VERSION})
libvesk ${PROJECT_VERSION_MAJOR} liborveldelegateclient1 (>= ${PROJECT_VERSION})
")
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/control/shlibs ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "liborveldelegateclient1 ${exact}, android-liblog-dev, android-libutils-dev")
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "liborveldelegateclient1 ${exact}")
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)

# Compressed as Debian's rules want it, and the same from one build to the next.
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/changelog.gz
  COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/packaging/changelog > ${CMAKE_BINARY_DIR}/changelog.gz
  DEPENDS ${PROJECT_SOURCE_DIR}/packaging/changelog VERBATIM)
add_custom_target(changelog ALL DEPENDS ${CMAKE_BINARY_DIR}/changelog.gz)
include(CPack)
