# Cross-compiles the driver with Debian's mingw-w64 for x86_64 Windows.
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(ORNIX_MINGW_TRIPLE x86_64-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
