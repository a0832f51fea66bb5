# The crashing program that the crash dump tests start and then open in a debugger.
add_executable(quay_crash_test_program ${CMAKE_CURRENT_LIST_DIR}/crash_programs/crash_test_program.cpp)
quay_set_warnings(quay_crash_test_program)
# Frames must stay what the source says, so the tests can look for each function by name.
target_compile_options(quay_crash_test_program PRIVATE -fno-omit-frame-pointer
                       -fno-optimize-sibling-calls -fno-inline)
target_link_libraries(quay_crash_test_program PRIVATE brimo_local_runtime)
target_compile_definitions(e2e_crash_dump_test PRIVATE
  QUAY_CRASH_TEST_PROGRAM="$<TARGET_FILE:quay_crash_test_program>")
add_dependencies(e2e_crash_dump_test quay_crash_test_program)
