include(GoogleTest)

# marlith_add_test(<name> SOURCES ... LIBS ... [NEEDS_EXE])
# One GoogleTest executable per source folder, registered test by test with CTest. NEEDS_EXE
# passes the path of the marlith executable in MARLITH_EXE (and builds it first).
function(marlith_add_test name)
  cmake_parse_arguments(ARG "NEEDS_EXE" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} marlith_testsupport GTest::gtest_main)
  set(env "MARLITH_SOURCE_DIR=${PROJECT_SOURCE_DIR}")
  if(ARG_NEEDS_EXE)
    add_dependencies(${name} marlith)
    list(APPEND env "MARLITH_EXE=$<TARGET_FILE:marlith>")
  endif()
  gtest_discover_tests(${name}
    WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
    PROPERTIES ENVIRONMENT "${env}"
    DISCOVERY_TIMEOUT 60)
endfunction()
