# GoogleTest for the test binaries. Debian packages the library for the
# native architecture only; a 32-bit build compiles it from the sources that
# the googletest package installs, with the build's own flags.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    set(ORNIX_GTEST_SOURCE_DIR /usr/src/googletest CACHE PATH "GoogleTest sources for the 32-bit build")
    if(NOT EXISTS ${ORNIX_GTEST_SOURCE_DIR}/CMakeLists.txt)
        message(FATAL_ERROR "No GoogleTest sources in ${ORNIX_GTEST_SOURCE_DIR} (Debian package googletest)")
    endif()
    set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
    set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
    add_subdirectory(${ORNIX_GTEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
    # GoogleTest's own CMake names them GTest::gtest, GTest::gtest_main, GTest::gmock.
else()
    find_package(GTest REQUIRED)
endif()
