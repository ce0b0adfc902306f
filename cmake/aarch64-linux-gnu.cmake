# Cross-compiling for arm64 with Debian's cross compiler against a sysroot of Debian's
# arm64 packages (scripts/arm64_sysroot.sh makes one); tests run under qemu-user.
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake -DQV_ARM64_SYSROOT=/path ...
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
if(NOT QV_ARM64_SYSROOT)
  set(QV_ARM64_SYSROOT $ENV{QV_ARM64_SYSROOT})
endif()
# try_compile projects see the variable too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QV_ARM64_SYSROOT)
if(NOT QV_ARM64_SYSROOT)
  message(FATAL_ERROR "QV_ARM64_SYSROOT must name the arm64 sysroot")
endif()
set(CMAKE_FIND_ROOT_PATH ${QV_ARM64_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# The cross compiler's own libraries come first; the sysroot's for everything else.
# OpenCV's core library needs BLAS and LAPACK, which Debian keeps behind alternatives.
set(QV_ARM64_LIBS ${QV_ARM64_SYSROOT}/usr/lib/aarch64-linux-gnu)
# (GDAL, behind OpenCV's image codecs, also needs libraries outside the multiarch folder.)
set(QV_ARM64_LINK_DIRS ${QV_ARM64_LIBS} ${QV_ARM64_LIBS}/blas ${QV_ARM64_LIBS}/lapack
    ${QV_ARM64_LIBS}/openmpi/lib ${QV_ARM64_SYSROOT}/lib/aarch64-linux-gnu ${QV_ARM64_SYSROOT}/usr/lib)
foreach(dir ${QV_ARM64_LINK_DIRS})
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${dir}")
  string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -Wl,-rpath-link,${dir}")
endforeach()
string(REPLACE ";" ":" QV_ARM64_LIBRARY_PATH "${QV_ARM64_LINK_DIRS}")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L ${QV_ARM64_SYSROOT}
    -E LD_LIBRARY_PATH=${QV_ARM64_LIBRARY_PATH})
