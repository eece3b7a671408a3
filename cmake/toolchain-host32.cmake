# The 32-bit host variant: the same Linux build with -m32 (i386), so the
# driver, the platform and the tests run with 32-bit pointers and the record
# layouts of 32-bit Windows. Needs g++-multilib.
#
# -malign-double: 32-bit Windows aligns 8-byte members (LONGLONG, double) to
# 8 bytes inside records, as mingw's i686 compiler does; the i386 System V
# default of 4 would shrink KS_DATARANGE_VIDEO to 292 bytes. GoogleTest is
# built with the same flags (cmake/GoogleTest.cmake).
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_C_FLAGS_INIT "-m32 -malign-double")
set(CMAKE_CXX_FLAGS_INIT "-m32 -malign-double")
set(CMAKE_EXE_LINKER_FLAGS_INIT -m32)
set(CMAKE_SHARED_LINKER_FLAGS_INIT -m32)
set(CMAKE_MODULE_LINKER_FLAGS_INIT -m32)
# Look for libraries among the i386 ones, never the 64-bit ones.
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(FIND_LIBRARY_USE_LIB64_PATHS OFF)
