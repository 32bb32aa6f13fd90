# The tuning file reader on a maximum-size tuning file, against a bare parse.
add_executable(reader_bench ${CMAKE_CURRENT_LIST_DIR}/reader_bench.cpp)
target_link_libraries(reader_bench PRIVATE configurator_core benchmark::benchmark)
