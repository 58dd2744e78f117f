# A cross build with Debian's compilers, run under an emulator. Foreign libraries come from
# build/sysroot-<architecture>, which scripts/cross fills; the C and C++ libraries are the cross compiler's own.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${orvel_triplet}-gcc)
set(CMAKE_CXX_COMPILER ${orvel_triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${orvel_triplet})

get_filename_component(orvel_sysroot ${CMAKE_CURRENT_LIST_DIR}/../../build/sysroot-${orvel_architecture} ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH ${orvel_sysroot})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
foreach(kind LIBRARY INCLUDE PACKAGE)
  set(CMAKE_FIND_ROOT_PATH_MODE_${kind} ONLY)
endforeach()

# Android's libraries need others of the same architecture, in folders that neither the linker nor the loader searches
# by itself.
set(orvel_libraries ${orvel_sysroot}/usr/lib/${orvel_triplet})
set(orvel_folders ${orvel_libraries}/android ${orvel_libraries} ${orvel_sysroot}/usr/lib/p7zip)
list(JOIN orvel_folders : orvel_folders)
foreach(kind EXE SHARED)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT -Wl,-rpath-link,${orvel_folders})
endforeach()
set(CMAKE_CROSSCOMPILING_EMULATOR ${orvel_emulator} -L /usr/${orvel_triplet} -E LD_LIBRARY_PATH=${orvel_folders})
