# Included by CTest when it starts: adds a test with `properties` for each suite of `program`, run by `emulator`.
# The program's output goes to `list_file`.txt and .err.
get_filename_component(name ${program} NAME_WE)
if(NOT EXISTS ${program})
  add_test(${name}_is_built ${program})
  return()
endif()

# To files, because a process that the program leaves running would keep a pipe open.
execute_process(
  COMMAND ${emulator} ${program} --gtest_list_tests --gtest_filter=-Fault.*
  OUTPUT_FILE ${list_file}.txt
  ERROR_FILE ${list_file}.err
  RESULT_VARIABLE result
  TIMEOUT 230)
if(NOT result EQUAL 0)
  file(READ ${list_file}.txt output)
  file(READ ${list_file}.err errors)
  message(FATAL_ERROR "${program} does not list its tests: ${result}\n${output}${errors}")
endif()

# A suite's line is not indented and ends in a full stop; its cases are indented.
file(STRINGS ${list_file}.txt suites REGEX "^[A-Za-z0-9_/]+\\.")
foreach(line IN LISTS suites)
  string(REGEX REPLACE "\\..*" "" suite "${line}")
  add_test(${suite} ${emulator} ${program} --gtest_filter=${suite}.*)
  set_tests_properties(${suite} PROPERTIES ${properties})
endforeach()
