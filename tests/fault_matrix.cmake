# Robustness end to end: the fault matrix (every driver request refused at
# each occurrence, every file damaged in every way) and one whole run of the
# example tuning set under valgrind's memcheck.
find_package(nlohmann_json 3 REQUIRED)

qvr_add_test(fault_matrix_test
  SOURCES fault_matrix_test.cpp e2e_support.cpp
  LIBS configurator_core nlohmann_json::nlohmann_json
  LABELS target_programs)
target_compile_definitions(fault_matrix_test PRIVATE
  QVR_CONFIGURATOR_EXE="$<TARGET_FILE:qvr_configurator>"
  QVR_DRIVER_SIM_EXE="$<TARGET_FILE:korva-driver-sim>"
  QVR_FAKETIME_EXE=""
  QVR_EXAMPLES_DIR="${QVR_EXAMPLES_DIR}")
add_dependencies(fault_matrix_test qvr_configurator korva-driver-sim examples)

# valgrind runs as the simulator's program, so that it (and the configurator
# inside it) gets the simulator's preload library. Only definite and
# indirect leaks count: protobuf's descriptors stay reachable by design.
# A sanitizer build cannot run under valgrind, nor can a cross build (the
# host's valgrind knows only host binaries).
find_program(QVR_VALGRIND valgrind)
if(CMAKE_CROSSCOMPILING)
  message(STATUS "Cross build: memcheck_full_run is left to the native build")
elseif(QVR_VALGRIND AND NOT QVR_SANITIZE)
  add_test(NAME memcheck_full_run
    COMMAND ${CMAKE_COMMAND}
      -DCOMMAND=$<TARGET_FILE:korva-driver-sim>|--|${QVR_VALGRIND}|--error-exitcode=99|--leak-check=full|--errors-for-leak-kinds=definite,indirect|--show-leak-kinds=definite,indirect|$<TARGET_FILE:qvr_configurator>|${QVR_EXAMPLES_DIR}
      -P ${CMAKE_CURRENT_LIST_DIR}/memcheck/check_run.cmake)
  set_tests_properties(memcheck_full_run PROPERTIES TIMEOUT 600)
elseif(NOT QVR_SANITIZE)
  message(WARNING "valgrind not found: memcheck_full_run is not run")
endif()
