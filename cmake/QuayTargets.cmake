# The helpers every target of the project goes through: source selection per platform, the
# warning flags, and the layer libraries whose include paths keep the arrows pointing down.

# foo.cpp is portable, foo_posix.cpp and foo_win.cpp are the platform layers, and exactly one of
# them is built; a posix/ or win/ folder holds code of that platform alone.
function(quay_collect_sources out_var)
  set(result "")
  foreach(dir IN LISTS ARGN)
    file(GLOB_RECURSE found CONFIGURE_DEPENDS ${dir}/*.cpp)
    list(APPEND result ${found})
  endforeach()
  if(WIN32)
    list(FILTER result EXCLUDE REGEX "(_posix\\.cpp|/posix/[^/]+\\.cpp)$")
  else()
    list(FILTER result EXCLUDE REGEX "(_win\\.cpp|/win/[^/]+\\.cpp)$")
  endif()
  set(${out_var} ${result} PARENT_SCOPE)
endfunction()

function(quay_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
endfunction()

# quay_add_layer(<target> <folder below src/> [LINKS <lower layers>...])
# A static library of the folder's sources. Its include path holds only its own folder, reached
# through a link in the build tree, plus what the lower layers export: an include of a layer
# above (or beside) it fails to build.
function(quay_add_layer target folder)
  cmake_parse_arguments(LAYER "" "" "LINKS" ${ARGN})
  quay_collect_sources(sources ${CMAKE_SOURCE_DIR}/src/${folder})
  add_library(${target} STATIC ${sources})
  set(include_root ${CMAKE_BINARY_DIR}/layer_include/${target})
  get_filename_component(link_parent ${include_root}/${folder} DIRECTORY)
  file(MAKE_DIRECTORY ${link_parent})
  file(CREATE_LINK ${CMAKE_SOURCE_DIR}/src/${folder} ${include_root}/${folder} SYMBOLIC)
  target_include_directories(${target} PUBLIC ${include_root})
  target_link_libraries(${target} PUBLIC ${LAYER_LINKS} quay_third_party)
  target_precompile_headers(${target} REUSE_FROM quay_precompiled)
  quay_set_warnings(${target})
endfunction()
