# The example set's coefficient generator (what the set installs:
# device_build_test).

# coefgen writes the same text for the same source on every run.
set(coefgen_check ${PROJECT_SOURCE_DIR}/examples/gen/coefgen_check.cmake)
set(coefgen_scratch ${CMAKE_CURRENT_BINARY_DIR}/coefgen_check)
add_test(NAME coefgen_is_reproducible
  COMMAND ${CMAKE_COMMAND} -DCOEFGEN=$<TARGET_FILE:coefgen> -DMODE=reproduce
          -DSOURCE=${PROJECT_SOURCE_DIR}/examples/src/headphones.textproto
          -DEXPECTED=${CMAKE_BINARY_DIR}/examples/text/headphones.textproto
          -DSCRATCH=${coefgen_scratch}/reproduce -P ${coefgen_check})
set_tests_properties(coefgen_is_reproducible PROPERTIES LABELS target_programs)

# coefgen refuses a directive it cannot honour, names the line, and writes nothing.
set(coefgen_bad_no_rate "coeffTables {\n  #@ hpir taps=4 seed=1\n}\n")
set(coefgen_bad_no_rate_error "bad_no_rate.textproto:2: no 'sampleRate:' line")
set(coefgen_bad_overflow "coeffTables {\n  sampleRate: 48000\n  #@ sos field=coeff_16 q=15 filters=hp:1000:0.7071\n}\n")
set(coefgen_bad_overflow_error "bad_overflow.textproto:3: value .* does not fit Q15")
set(coefgen_bad_padding "coeffTables {\n  sampleRate: 48000\n  #@ sos field=coeff_16 q=14 n=9 filters=bhp:80:4\n}\n")
set(coefgen_bad_padding_error "bad_padding.textproto:3: cascade has 10 values, more than n=9")
set(coefgen_bad_kind "coeffTables {\n  sampleRate: 48000\n  #@ fir taps=4\n}\n")
set(coefgen_bad_kind_error "bad_kind.textproto:3: unknown directive 'fir'")
foreach(case no_rate overflow padding kind)
  file(WRITE ${coefgen_scratch}/bad_${case}.textproto "${coefgen_bad_${case}}")
  add_test(NAME coefgen_rejects_${case}
    COMMAND ${CMAKE_COMMAND} -DCOEFGEN=$<TARGET_FILE:coefgen> -DMODE=reject
            -DSOURCE=${coefgen_scratch}/bad_${case}.textproto
            -DEXPECTED=${coefgen_bad_${case}_error}
            -DSCRATCH=${coefgen_scratch}/bad_${case} -P ${coefgen_check})
  set_tests_properties(coefgen_rejects_${case} PROPERTIES LABELS target_programs)
endforeach()

# Whole-payload fixtures of the example set; `update_goldens` rewrites them.
qvr_add_test(golden_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/golden_test.cpp
  LIBS qvr_test_fuzz_support)
target_compile_definitions(golden_test PRIVATE
  QVR_EXAMPLES_DIR="${QVR_EXAMPLES_DIR}" QVR_GOLDEN_DIR="${CMAKE_CURRENT_LIST_DIR}/golden")
add_dependencies(golden_test examples)
add_custom_target(update_goldens
  COMMAND ${CMAKE_COMMAND} -E env QVR_UPDATE_GOLDENS=1 $<TARGET_FILE:golden_test>
  DEPENDS golden_test
  COMMENT "Rewriting tests/golden/*.hex from the current conversion"
  VERBATIM)
