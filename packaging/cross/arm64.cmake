# CMake's toolchain file for programs that run on arm64, built on another architecture of Debian 12. The
# libraries of arm64 are installed beside the build host's own, so there is no separate root to search.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
# CPack would write the build host's architecture into the packages.
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
