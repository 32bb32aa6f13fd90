# Every input kept in fuzz/corpus/<target>/ (seeds, and the inputs of every
# fault the fuzzers found) runs through its fuzz target in the ordinary
# builds too, as a test: fuzz_corpus_<target>.
# The settings target reads its input through clang's header-only
# FuzzedDataProvider; only that header is taken from clang's include
# directory (the rest of it is clang's own and breaks gcc). It is the same
# for every target, so a cross build takes the host's.
find_file(QVR_FUZZED_DATA_PROVIDER fuzzer/FuzzedDataProvider.h
  PATHS /usr/lib/llvm-14/lib/clang/14.0.6/include /usr/lib/llvm-14/lib/clang/14/include
  NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
if(QVR_FUZZED_DATA_PROVIDER)
  set(QVR_FUZZED_DATA_PROVIDER_DIR ${CMAKE_CURRENT_BINARY_DIR}/fuzz_include)
  file(COPY ${QVR_FUZZED_DATA_PROVIDER} DESTINATION ${QVR_FUZZED_DATA_PROVIDER_DIR}/fuzzer)
endif()

set(fuzz_dir ${PROJECT_SOURCE_DIR}/fuzz)

foreach(target tuning_file config settings)
  if(target STREQUAL "settings" AND NOT QVR_FUZZED_DATA_PROVIDER_DIR)
    message(WARNING "FuzzedDataProvider.h not found: fuzz_corpus_settings is not built")
    continue()
  endif()
  set(sources fuzz_corpus_test.cpp ${fuzz_dir}/${target}_fuzzer.cpp)
  set(libs qvr_test_fuzz_support)
  if(target STREQUAL "config")
    list(APPEND sources ${fuzz_dir}/fake_driver.cpp)
    list(APPEND libs korva_sim_model)
  endif()
  qvr_add_test(fuzz_corpus_${target} SOURCES ${sources} LIBS ${libs})
  target_compile_definitions(fuzz_corpus_${target} PRIVATE
    QVR_FUZZ_CORPUS="${fuzz_dir}/corpus/${target}")
  if(target STREQUAL "config")
    target_link_options(fuzz_corpus_${target} PRIVATE -Wl,--wrap=ioctl)
  endif()
  if(target STREQUAL "settings")
    target_include_directories(fuzz_corpus_${target} SYSTEM PRIVATE ${QVR_FUZZED_DATA_PROVIDER_DIR})
  endif()
endforeach()
