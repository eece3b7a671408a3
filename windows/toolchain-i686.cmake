# Cross-compiles the driver with Debian's mingw-w64 for i686 Windows.
set(CMAKE_SYSTEM_PROCESSOR i686)
set(ORNIX_MINGW_TRIPLE i686-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
