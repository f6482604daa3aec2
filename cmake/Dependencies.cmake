# Third-party libraries come from the distribution's packages (see .ci/run).
find_path(TECLA_INCLUDE_DIR libtecla.h)
find_library(TECLA_LIBRARY tecla)
if(TECLA_INCLUDE_DIR AND TECLA_LIBRARY)
  add_library(tecla::tecla UNKNOWN IMPORTED)
  set_target_properties(tecla::tecla PROPERTIES
    IMPORTED_LOCATION ${TECLA_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${TECLA_INCLUDE_DIR})
else()
  message(FATAL_ERROR "libtecla not found: install libtecla-dev")
endif()

if(TX_BUILD_TESTS)
  find_package(GTest REQUIRED)
endif()
if(TX_BUILD_BENCH)
  find_package(benchmark QUIET)
  find_package(PkgConfig QUIET)
  find_path(PUGIXML_INCLUDE_DIR pugixml.hpp)
  find_library(PUGIXML_LIBRARY pugixml)
  find_package(EXPAT QUIET)
endif()
