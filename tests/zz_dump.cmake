qvr_add_test(zz_dump_test SOURCES /tmp/i12_dump/dump_test.cpp LIBS qvrcs_tool_lib)
target_compile_definitions(zz_dump_test PRIVATE QVR_EXAMPLES_DIR="${QVR_EXAMPLES_DIR}")
