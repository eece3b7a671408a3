# What both mingw-w64 toolchain files share; they set CMAKE_SYSTEM_PROCESSOR
# and ORNIX_MINGW_TRIPLE first.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_C_COMPILER   ${ORNIX_MINGW_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${ORNIX_MINGW_TRIPLE}-g++)
set(CMAKE_DLLTOOL      ${ORNIX_MINGW_TRIPLE}-dlltool)
set(CMAKE_OBJDUMP      ${ORNIX_MINGW_TRIPLE}-objdump)

# The kernel has no C runtime to link a test program against: let CMake's
# compiler checks build static libraries only, and never run anything (no try-run).
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

# Headers and libraries come from the mingw sysroot only; build tools from the host.
set(CMAKE_FIND_ROOT_PATH /usr/${ORNIX_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
