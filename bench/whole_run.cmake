# Whole-process cost of the configurator on six maximum-size tuning files,
# against bare_parse, the same files read and parsed and nothing else; both
# again on six minimal files (the fixed cost of a run), and the driver
# requests alone (what the simulator's transport costs inside a run).
# Not a test: scripts/bench-whole-run.sh runs it under the simulated driver.
add_executable(bare_parse ${CMAKE_CURRENT_LIST_DIR}/bare_parse.cpp)
target_link_libraries(bare_parse PRIVATE qvr_proto)

# The same driver requests alone: the simulator's transport cost inside a run.
add_executable(driver_requests ${CMAKE_CURRENT_LIST_DIR}/driver_requests.cpp)
target_link_libraries(driver_requests PRIVATE configurator_core)

# The configurator with the driver answered in its own process (a lean driver
# that checks and answers each request and keeps nothing), so that no
# transport is charged to it; and bare_run, the work no design can avoid:
# configurator.cfg and the six files parsed, the log lines written.
add_executable(qvr_configurator_inproc ${PROJECT_SOURCE_DIR}/configurator/main.cpp
  ${CMAKE_CURRENT_LIST_DIR}/inproc_driver.cpp)
target_include_directories(qvr_configurator_inproc PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(qvr_configurator_inproc PRIVATE configurator_core)
target_link_options(qvr_configurator_inproc PRIVATE -Wl,--wrap=open -Wl,--wrap=ioctl)
add_executable(bare_run ${CMAKE_CURRENT_LIST_DIR}/bare_run.cpp)
target_include_directories(bare_run PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(bare_run PRIVATE qvr_proto android_log)

add_executable(whole_run_bench ${CMAKE_CURRENT_LIST_DIR}/whole_run_bench.cpp)
target_include_directories(whole_run_bench PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(whole_run_bench PRIVATE qvr_proto benchmark::benchmark)
target_compile_definitions(whole_run_bench PRIVATE
  QVR_CONFIGURATOR_EXE="$<TARGET_FILE:qvr_configurator>"
  QVR_BARE_PARSE_EXE="$<TARGET_FILE:bare_parse>"
  QVR_DRIVER_REQUESTS_EXE="$<TARGET_FILE:driver_requests>"
  QVR_CONFIGURATOR_INPROC_EXE="$<TARGET_FILE:qvr_configurator_inproc>"
  QVR_BARE_RUN_EXE="$<TARGET_FILE:bare_run>"
  QVR_MAX_TUNING_FILE="${QVR_EXAMPLES_DIR}/max.bin"
  QVR_MIN_TUNING_FILE="${QVR_EXAMPLES_DIR}/lineout.bin")
add_dependencies(whole_run_bench qvr_configurator bare_parse driver_requests qvr_configurator_inproc bare_run
  examples)
