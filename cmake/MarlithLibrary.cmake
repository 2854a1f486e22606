# marlith_library(<target> SOURCES ... [PUBLIC ...] [PRIVATE ...])
# A static library made of the current source folder. Its headers are included as
# "<folder>/<name>.h" through an include root in the build tree that holds this folder only, so
# a target sees its own headers and those of the targets it links, and no others.
function(marlith_library target)
  cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
  get_filename_component(folder ${CMAKE_CURRENT_SOURCE_DIR} NAME)
  set(root ${PROJECT_BINARY_DIR}/include-roots/${target})
  file(MAKE_DIRECTORY ${root})
  file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR} ${root}/${folder} SYMBOLIC)
  add_library(${target} STATIC ${ARG_SOURCES})
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${root}>)
  target_link_libraries(${target} PUBLIC marlith_headers ${ARG_PUBLIC} PRIVATE ${ARG_PRIVATE})
endfunction()
