# When the targets run under an emulator (cross builds), tests that start
# target programs themselves need it too: the kernel cannot run a foreign
# executable that a test execs. TX_EMULATOR_LAUNCHER is a script that runs
# "LAUNCHER PROGRAM ARG..." under the emulator; tests get its path in the
# environment variable TX_EMULATOR and put it in front of every target program
# they start. It is empty for native builds.
set(TX_EMULATOR_LAUNCHER "")
if(CMAKE_CROSSCOMPILING AND CMAKE_CROSSCOMPILING_EMULATOR)
  set(TX_EMULATOR_WORDS "")
  foreach(word IN LISTS CMAKE_CROSSCOMPILING_EMULATOR)
    string(REPLACE "'" "'\\''" word "${word}")
    string(APPEND TX_EMULATOR_WORDS " '${word}'")
  endforeach()
  string(STRIP "${TX_EMULATOR_WORDS}" TX_EMULATOR_WORDS)
  set(TX_EMULATOR_NAMES_DIR "'${CMAKE_BINARY_DIR}/emulator-names'")
  set(TX_EMULATOR_LAUNCHER ${CMAKE_BINARY_DIR}/emulator-launcher)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/emulator-launcher.sh.in ${TX_EMULATOR_LAUNCHER} @ONLY
                 FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                  WORLD_READ WORLD_EXECUTE)
endif()
