# Where qvrcs writes: the program run as a process onto standard output,
# devices, FIFOs, links and a full tmpfs (mounted when the tests run as root).
qvr_add_test(qvrcs_output_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/qvrcs_output_test.cpp
  LIBS qvrcs_tool_lib
  LABELS target_programs)
target_compile_definitions(qvrcs_output_test PRIVATE
  QVR_EXAMPLES_DIR="${QVR_EXAMPLES_DIR}"
  QVR_QVRCS_EXE="$<TARGET_FILE:qvrcs_tool>")
add_dependencies(qvrcs_output_test examples qvrcs_tool)
