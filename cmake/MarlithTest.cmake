include(GoogleTest)

# marlith_add_test(<name> SOURCES ... LIBS ... [NEEDS_EXE] [NEEDS_DEBLUR])
# One GoogleTest executable per source folder, registered test by test with CTest. The tests
# know the source tree (MARLITH_SOURCE_DIR) and, with NEEDS_EXE, the marlith executable
# (MARLITH_EXE), with NEEDS_DEBLUR the marlith-deblur executable (MARLITH_DEBLUR_EXE), which
# are then built first.
function(marlith_add_test name)
  cmake_parse_arguments(ARG "NEEDS_EXE;NEEDS_DEBLUR" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} marlith_testsupport GTest::gtest_main)
  target_compile_definitions(${name} PRIVATE MARLITH_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  if(ARG_NEEDS_EXE)
    add_dependencies(${name} marlith)
    target_compile_definitions(${name} PRIVATE MARLITH_EXE="$<TARGET_FILE:marlith>")
  endif()
  if(ARG_NEEDS_DEBLUR)
    add_dependencies(${name} marlith-deblur)
    target_compile_definitions(${name} PRIVATE
                               MARLITH_DEBLUR_EXE="$<TARGET_FILE:marlith-deblur>")
  endif()
  gtest_discover_tests(${name} WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR} DISCOVERY_TIMEOUT 60)
endfunction()
