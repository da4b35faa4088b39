# The recorder's board: 32-bit ARM Linux, hard-float (Debian's arm-linux-gnueabihf toolchain).
#
# Libraries come from the sysroot that scripts/armhf-sysroot.sh assembles (default
# build/armhf-sysroot beside this tree; VESK_ARMHF_SYSROOT overrides it, as a cache or an
# environment variable). Only the sysroot is searched for libraries, headers and packages, never
# the host. Test programs run under qemu-arm through CTest's cross-compiling emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

if(NOT VESK_ARMHF_SYSROOT)
  if(DEFINED ENV{VESK_ARMHF_SYSROOT})
    set(VESK_ARMHF_SYSROOT "$ENV{VESK_ARMHF_SYSROOT}")
  else()
    get_filename_component(VESK_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot" ABSOLUTE)
  endif()
endif()
if(NOT EXISTS "${VESK_ARMHF_SYSROOT}/.vesk-sysroot")
  message(FATAL_ERROR "No armhf sysroot at ${VESK_ARMHF_SYSROOT}: run scripts/armhf-sysroot.sh first")
endif()
# try_compile projects re-read this file: hand them the same sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VESK_ARMHF_SYSROOT)

set(CMAKE_FIND_ROOT_PATH "${VESK_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config (FindCURL asks it first) must read the sysroot's .pc files and prefix their paths.
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_LIBDIR}
    "${VESK_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${VESK_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${VESK_ARMHF_SYSROOT}")

# The linker follows libcurl's own dependencies (ssl, krb5, ...) inside the sysroot.
set(_vesk_rpath_link
    "-Wl,-rpath-link,${VESK_ARMHF_SYSROOT}/lib/arm-linux-gnueabihf:${VESK_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_vesk_rpath_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_vesk_rpath_link}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_vesk_rpath_link}")

# qemu-arm -L makes the guest's /lib and /usr/lib resolve inside the sysroot first, where the
# script also linked the cross toolchain's libc and libstdc++.
find_program(VESK_QEMU_ARM qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR "${VESK_QEMU_ARM};-L;${VESK_ARMHF_SYSROOT}")
