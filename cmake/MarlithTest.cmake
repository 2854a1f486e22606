include(GoogleTest)

# marlith_add_test(<name> SOURCES ... LIBS ...)
# One GoogleTest executable per source folder, registered test by test with CTest.
function(marlith_add_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} marlith_testsupport GTest::gtest_main)
  gtest_discover_tests(${name}
    WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
    PROPERTIES ENVIRONMENT "MARLITH_EXE=$<TARGET_FILE:marlith>;MARLITH_SOURCE_DIR=${PROJECT_SOURCE_DIR}"
    DISCOVERY_TIMEOUT 60)
endfunction()
