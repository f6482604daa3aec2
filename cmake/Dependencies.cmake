# Third-party libraries come from the distribution's packages (see .ci/run).
find_path(TECLA_INCLUDE_DIR libtecla.h)
find_library(TECLA_LIBRARY tecla)
if(TECLA_INCLUDE_DIR AND TECLA_LIBRARY)
  if(CMAKE_CROSSCOMPILING AND NOT TECLA_INCLUDE_DIR IN_LIST CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES)
    # Multiarch packages share their headers in the host's /usr/include. Handing
    # that whole directory to the cross compiler would put the host's C library
    # headers before the target's, so the one header is staged on its own.
    set(tecla_staged_include ${CMAKE_BINARY_DIR}/staged-include/tecla)
    configure_file(${TECLA_INCLUDE_DIR}/libtecla.h ${tecla_staged_include}/libtecla.h COPYONLY)
    set(tecla_include ${tecla_staged_include})
  else()
    set(tecla_include ${TECLA_INCLUDE_DIR})
  endif()
  add_library(tecla::tecla UNKNOWN IMPORTED)
  set_target_properties(tecla::tecla PROPERTIES
    IMPORTED_LOCATION ${TECLA_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${tecla_include})
else()
  message(FATAL_ERROR "libtecla not found: install libtecla-dev (libtecla-dev:armhf for the ARM target)")
endif()

if(TX_BUILD_TESTS)
  if(CMAKE_CROSSCOMPILING)
    # Debian ships GoogleTest's sources (libgtest-dev); the prebuilt libraries
    # are for the build machine, so the target gets its own build of them.
    set(TX_GTEST_SOURCE_DIR /usr/src/googletest CACHE PATH "GoogleTest sources for cross builds")
    if(NOT EXISTS ${TX_GTEST_SOURCE_DIR}/CMakeLists.txt)
      message(FATAL_ERROR "GoogleTest sources not found in ${TX_GTEST_SOURCE_DIR}: install libgtest-dev")
    endif()
    set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
    set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
    # Third-party code is not held to this project's warning policy.
    get_directory_property(tx_compile_options COMPILE_OPTIONS)
    set(tx_gtest_options ${tx_compile_options})
    list(REMOVE_ITEM tx_gtest_options -Werror -Wpedantic)
    # GCC 12 misreads a string concatenation in its sources (-Wrestrict).
    list(APPEND tx_gtest_options -Wno-restrict)
    set_directory_properties(PROPERTIES COMPILE_OPTIONS "${tx_gtest_options}")
    add_subdirectory(${TX_GTEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
    set_directory_properties(PROPERTIES COMPILE_OPTIONS "${tx_compile_options}")
    # Newer GoogleTest releases name their targets GTest::* themselves.
    foreach(lib gtest gtest_main gmock gmock_main)
      if(NOT TARGET GTest::${lib})
        add_library(GTest::${lib} ALIAS ${lib})
      endif()
    endforeach()
  else()
    find_package(GTest REQUIRED)
  endif()
endif()
if(TX_BUILD_BENCH)
  find_package(benchmark QUIET)
  find_package(PkgConfig QUIET)
  find_path(PUGIXML_INCLUDE_DIR pugixml.hpp)
  find_library(PUGIXML_LIBRARY pugixml)
  find_package(EXPAT QUIET)
endif()
