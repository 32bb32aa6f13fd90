# qvrcs check on 1,000 generated six-slot search paths in one run, against
# bare_parse reading and parsing the same 6,000 files in one run; and the
# same check on two threads. Not a test:
# scripts/bench-batch-check.sh runs it.
add_executable(batch_check_bench ${CMAKE_CURRENT_LIST_DIR}/batch_check_bench.cpp)
target_include_directories(batch_check_bench PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(batch_check_bench PRIVATE configurator_core benchmark::benchmark)
target_compile_definitions(batch_check_bench PRIVATE
  QVR_QVRCS_EXE="$<TARGET_FILE:qvrcs_tool>"
  QVR_BARE_PARSE_EXE="$<TARGET_FILE:bare_parse>"
  QVR_EXAMPLES_DIR="${QVR_EXAMPLES_DIR}")
add_dependencies(batch_check_bench qvrcs_tool bare_parse examples)
