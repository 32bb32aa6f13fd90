# qvrcs plot and report. The report page is opened in headless chromium when
# it is installed (scripts/install-deps.sh installs it).
find_package(PNG REQUIRED)
find_program(QVR_CHROMIUM chromium)
qvr_add_test(qvrcs_filters_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/qvrcs_filters_test.cpp
  LIBS qvrcs_tool_lib PNG::PNG)
target_compile_definitions(qvrcs_filters_test PRIVATE QVR_EXAMPLES_DIR="${QVR_EXAMPLES_DIR}")
if(QVR_CHROMIUM)
  target_compile_definitions(qvrcs_filters_test PRIVATE QVR_CHROMIUM_EXE="${QVR_CHROMIUM}")
else()
  message(WARNING "chromium not found: the report page is not opened in a browser by the tests")
endif()
add_dependencies(qvrcs_filters_test examples)
