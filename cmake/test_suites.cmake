# Adds one CTest test for each suite of a GoogleTest program: one for each case would cost a process each, and one for
# the whole program would hide which part failed. CTest lists the suites when it starts, as the program may not run on
# the machine that builds it.
#   add_test_suites(TARGET [PROPERTY VALUE...])
# Leaves out the suite "Fault": its cases crash on purpose, and other tests run them in child processes.
function(add_test_suites target)
  # In seconds. The program itself has a time limit for each test and names the one that exceeds it.
  set(suite_limit 600)
  set(ctest_limit 630)
  if(CMAKE_CROSSCOMPILING)
    set(emulator ${CMAKE_CROSSCOMPILING_EMULATOR} --limit ${suite_limit})
  endif()
  set(list_file ${CMAKE_CURRENT_BINARY_DIR}/${target}_suites)
  file(
    GENERATE
    OUTPUT ${list_file}_$<CONFIG>.cmake
    CONTENT "set(emulator \"${emulator}\")
set(list_file \"${list_file}\")
set(program \"$<TARGET_FILE:${target}>\")
set(properties \"TIMEOUT;${ctest_limit};${ARGN}\")
include(\"${PROJECT_SOURCE_DIR}/cmake/list_test_suites.cmake\")
")
  get_property(multi_config GLOBAL PROPERTY GENERATOR_IS_MULTI_CONFIG)
  set(config ${CMAKE_BUILD_TYPE})
  if(multi_config)
    set(config "\${CTEST_CONFIGURATION_TYPE}")
  endif()
  file(WRITE ${list_file}.cmake "include(\"${list_file}_${config}.cmake\")\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${list_file}.cmake)
endfunction()
