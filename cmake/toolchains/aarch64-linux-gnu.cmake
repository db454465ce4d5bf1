# Cross-compiles for boards with 64-bit Arm and GNU/Linux:
#
#   cmake -S . -B build/board -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake
#         -DMEDIA_BACKEND_SYSROOT=DIRECTORY [-DMEDIA_BACKEND_CROSS_PREFIX=PREFIX]
#
# MEDIA_BACKEND_SYSROOT holds the board's libraries and headers; without it they are those that the
# compiler brings. MEDIA_BACKEND_CROSS_PREFIX is what the compiler's name has before "gcc", a path too;
# by default Debian's, aarch64-linux-gnu-. Where qemu-user is installed it runs the tests.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(MEDIA_BACKEND_SYSROOT "" CACHE PATH "Root of the board's libraries and headers")
set(MEDIA_BACKEND_CROSS_PREFIX "aarch64-linux-gnu-" CACHE STRING "Start of the compiler's name")
# Each trial compilation reads this file again.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MEDIA_BACKEND_SYSROOT MEDIA_BACKEND_CROSS_PREFIX)

set(CMAKE_C_COMPILER ${MEDIA_BACKEND_CROSS_PREFIX}gcc)
set(CMAKE_CXX_COMPILER ${MEDIA_BACKEND_CROSS_PREFIX}g++)

# Programs that run during the build are this machine's, everything else is the board's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
foreach(kind LIBRARY INCLUDE PACKAGE)
  set(CMAKE_FIND_ROOT_PATH_MODE_${kind} ONLY)
endforeach()

find_program(MEDIA_BACKEND_EMULATOR NAMES qemu-aarch64-static qemu-aarch64
             DOC "Runs the board's programs on this machine")
mark_as_advanced(MEDIA_BACKEND_EMULATOR)
if(MEDIA_BACKEND_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${MEDIA_BACKEND_EMULATOR})
endif()

if(MEDIA_BACKEND_SYSROOT)
  set(CMAKE_SYSROOT ${MEDIA_BACKEND_SYSROOT})
  if(MEDIA_BACKEND_EMULATOR)
    list(APPEND CMAKE_CROSSCOMPILING_EMULATOR -L ${MEDIA_BACKEND_SYSROOT})
  endif()
  # Debian's folders, and those of Yocto and Buildroot.
  set(ENV{PKG_CONFIG_SYSROOT_DIR} ${MEDIA_BACKEND_SYSROOT})
  foreach(folder lib/aarch64-linux-gnu lib64 lib share)
    string(APPEND pkg_config_folders ":${MEDIA_BACKEND_SYSROOT}/usr/${folder}/pkgconfig")
  endforeach()
  set(ENV{PKG_CONFIG_LIBDIR} ${pkg_config_folders})
  unset(pkg_config_folders)
endif()
