# The qvrcs companion tool, in-process: its own tests, and the outcome tests
# that hold what it says of each slot and file against the configurator
# under the simulated driver (its convert is compared with what the driver
# receives).
find_package(nlohmann_json 3 REQUIRED)
qvr_add_test(qvrcs_tool_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/qvrcs_tool_test.cpp
  LIBS qvrcs_tool_lib nlohmann_json::nlohmann_json)
target_compile_definitions(qvrcs_tool_test PRIVATE QVR_EXAMPLES_DIR="${QVR_EXAMPLES_DIR}")
add_dependencies(qvrcs_tool_test examples)

qvr_add_test(qvrcs_outcome_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/qvrcs_outcome_test.cpp ${CMAKE_CURRENT_LIST_DIR}/e2e_support.cpp
  LIBS qvrcs_tool_lib nlohmann_json::nlohmann_json
  LABELS target_programs)
target_compile_definitions(qvrcs_outcome_test PRIVATE
  QVR_CONFIGURATOR_EXE="$<TARGET_FILE:qvr_configurator>"
  QVR_DRIVER_SIM_EXE="$<TARGET_FILE:korva-driver-sim>"
  QVR_FAKETIME_EXE="")
add_dependencies(qvrcs_outcome_test qvr_configurator korva-driver-sim)
