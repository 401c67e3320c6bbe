# Cross build for the device ABI (32-bit ARM, hard float) against a sysroot
# made by scripts/armhf-sysroot.sh; tests run through scripts/qemu-armhf.sh.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

# Same default and override as the scripts that make and use the sysroot.
if(NOT KIVHAL_ARMHF_SYSROOT)
  if(DEFINED ENV{KIVHAL_ARMHF_SYSROOT})
    set(KIVHAL_ARMHF_SYSROOT "$ENV{KIVHAL_ARMHF_SYSROOT}")
  else()
    set(KIVHAL_ARMHF_SYSROOT "$ENV{HOME}/.cache/kivhal-armhf-sysroot")
  endif()
endif()
set(CMAKE_SYSROOT "${KIVHAL_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${KIVHAL_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_SYSROOT_DIR} "${KIVHAL_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
  "${KIVHAL_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${KIVHAL_ARMHF_SYSROOT}/usr/share/pkgconfig")

set(_kivhal_target_libs "${KIVHAL_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")
# libutils' own dependencies (and libbacktrace's 7z.so) live outside the
# default search path. set, not append: the toolchain file is read twice.
set(_kivhal_rpath_link
  "-Wl,-rpath-link,${_kivhal_target_libs}/android -Wl,-rpath-link,${KIVHAL_ARMHF_SYSROOT}/usr/lib/p7zip")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_kivhal_rpath_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_kivhal_rpath_link}")

# The host protoc generates the sources (same protobuf version as the target).
set(Protobuf_PROTOC_EXECUTABLE /usr/bin/protoc CACHE FILEPATH "")
set(CMAKE_CROSSCOMPILING_EMULATOR "${CMAKE_CURRENT_LIST_DIR}/../scripts/qemu-armhf.sh")

# GCC notes that passing some aggregates changed ABI in GCC 7.1; everything
# here is built by one compiler, so the notes only bury real diagnostics.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
