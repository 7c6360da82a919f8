# libpd, built by scripts/build-libpd.sh from Debian's puredata source package
# into the git-ignored .deps/ folder. Provides the imported target libpd::libpd.

set(LIBPD_ROOT "${CMAKE_SOURCE_DIR}/.deps/puredata" CACHE PATH "Pure Data source tree holding a built libpd")
set(LIBPD_LIBRARY "${LIBPD_ROOT}/libpd/libpd.a")
set(LIBPD_INCLUDE_DIR "${LIBPD_ROOT}/src")

if(NOT EXISTS "${LIBPD_LIBRARY}" OR NOT EXISTS "${LIBPD_INCLUDE_DIR}/z_libpd.h")
    message(FATAL_ERROR "libpd not found under ${LIBPD_ROOT}. Run scripts/build-libpd.sh (make does it for you).")
endif()

find_package(Threads REQUIRED)

add_library(libpd::libpd STATIC IMPORTED GLOBAL)
set_target_properties(libpd::libpd PROPERTIES
    IMPORTED_LOCATION "${LIBPD_LIBRARY}"
    # libpd's makefile builds with these; the headers must see the same ones.
    INTERFACE_COMPILE_DEFINITIONS "PD;PDINSTANCE"
    INTERFACE_LINK_LIBRARIES "Threads::Threads;${CMAKE_DL_LIBS};m")
# SYSTEM: Pd's headers are not ours to keep warning-free.
set_property(TARGET libpd::libpd PROPERTY INTERFACE_SYSTEM_INCLUDE_DIRECTORIES "${LIBPD_INCLUDE_DIR}")
set_property(TARGET libpd::libpd PROPERTY INTERFACE_INCLUDE_DIRECTORIES "${LIBPD_INCLUDE_DIR}")

# The lock-free ring's source, for builds (such as the ThreadSanitizer one)
# that must compile it with their own instrumentation.
set(LIBPD_RINGBUFFER_SOURCE "${LIBPD_INCLUDE_DIR}/z_ringbuffer.c")
