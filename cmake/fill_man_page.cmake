# Fills a manual page template: @PROJECT_VERSION@ and, when COMMANDS names a
# file, @COMMANDS@ with that file's roff text.
#   cmake -DTEMPLATE=in -DOUTPUT=out -DPROJECT_VERSION=v [-DCOMMANDS=roff] -P fill_man_page.cmake
cmake_minimum_required(VERSION 3.25)
file(READ "${TEMPLATE}" page)
if(DEFINED COMMANDS)
  file(READ "${COMMANDS}" commands)
  string(REGEX REPLACE "\n$" "" commands "${commands}")
  string(REPLACE "@COMMANDS@" "${commands}" page "${page}")
endif()
string(REPLACE "@PROJECT_VERSION@" "${PROJECT_VERSION}" page "${page}")
file(WRITE "${OUTPUT}.tmp" "${page}")
file(RENAME "${OUTPUT}.tmp" "${OUTPUT}")
