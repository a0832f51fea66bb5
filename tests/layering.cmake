# The arrows between the layers point down: an include of a layer above fails to build. Each
# probe is a source that includes upward; its test builds it and expects the compiler to miss
# the header.
function(quay_add_layering_probe name source layer missing_header)
  add_library(${name} OBJECT EXCLUDE_FROM_ALL ${CMAKE_CURRENT_LIST_DIR}/layering/${source})
  target_link_libraries(${name} PRIVATE ${layer})
  add_test(NAME layering.${name} COMMAND ${CMAKE_COMMAND} --build ${CMAKE_BINARY_DIR} --target ${name})
  set_tests_properties(layering.${name} PROPERTIES LABELS unit
                       PASS_REGULAR_EXPRESSION "${missing_header}: No such file or directory")
endfunction()

quay_add_layering_probe(RuntimeCannotIncludeTheApplication runtime_includes_application.cpp
                        brimo_local_runtime "quay_tools_host/files/file_paths.h")
quay_add_layering_probe(CommonCannotIncludeTheRuntime common_includes_runtime.cpp
                        brimo_stack_common "brimo_stack/local_runtime/host_launch_config.h")
quay_add_layering_probe(LocalRuntimeCannotIncludeTheProcessRuntime local_runtime_includes_process_runtime.cpp
                        brimo_local_runtime "process_runtime/native_process.h")
quay_add_layering_probe(ProcessRuntimeCannotIncludeTheApplication process_runtime_includes_application.cpp
                        brimo_process_runtime "quay_tools_host/files/file_paths.h")
