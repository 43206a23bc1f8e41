# Cross build for 32-bit ARM with hardware floating point (Debian's armhf).
#   compiler:  Debian's arm-linux-gnueabihf-gcc/g++ (g++-arm-linux-gnueabihf)
#   libraries: an armhf root folder made by scripts/make-sysroot.sh
#   programs:  run under qemu-arm with that folder as the library root
# ORLO_SYSROOT picks another root folder; the default is the one
# scripts/test.sh --arch armhf makes.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(ORLO_TRIPLET arm-linux-gnueabihf)
set(CMAKE_LIBRARY_ARCHITECTURE ${ORLO_TRIPLET})

if(NOT ORLO_SYSROOT)
  get_filename_component(ORLO_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-armhf ABSOLUTE)
endif()
set(ORLO_SYSROOT ${ORLO_SYSROOT} CACHE PATH "armhf root folder with the target's libraries")
# try_compile projects read this file again and need the same folder.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ORLO_SYSROOT)
if(NOT EXISTS ${ORLO_SYSROOT}/.complete)
  message(FATAL_ERROR "no complete armhf root folder at ${ORLO_SYSROOT}: "
                      "make it with: bash scripts/make-sysroot.sh armhf")
endif()

set(CMAKE_C_COMPILER ${ORLO_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ORLO_TRIPLET}-g++)
set(CMAKE_SYSROOT ${ORLO_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reads the target's .pc files only and prefixes their paths.
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${ORLO_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${ORLO_SYSROOT}/usr/lib/${ORLO_TRIPLET}/pkgconfig:${ORLO_SYSROOT}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# Tests, test discovery and the plugin registry run the target's programs
# through the emulator, which finds the loader and libraries in the root folder.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;${ORLO_SYSROOT})
# The target's own gst-inspect builds the plugin registry.
set(ORLO_TARGET_GST_INSPECT ${ORLO_SYSROOT}/usr/bin/gst-inspect-1.0)
set(ORLO_TARGET_GST_SYSTEM_PLUGINS ${ORLO_SYSROOT}/usr/lib/${ORLO_TRIPLET}/gstreamer-1.0)
