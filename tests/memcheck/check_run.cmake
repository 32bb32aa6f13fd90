# Runs COMMAND ("|"-separated) and passes only when it exits 0, memcheck
# reports no error and no definite or indirect leak, and the configurator
# loaded every slot.
string(REPLACE "|" ";" command "${COMMAND}")
execute_process(COMMAND ${command} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
message("${err}")
if(NOT status EQUAL 0)
  message(FATAL_ERROR "exit status ${status} (99: memcheck found errors or leaks)")
endif()
foreach(required "ERROR SUMMARY: 0 errors" "load_settings\\(\\) returns 0\\." "Success setting parameters\\.")
  if(NOT err MATCHES "${required}")
    message(FATAL_ERROR "missing from the run's output: ${required}")
  endif()
endforeach()
foreach(forbidden "definitely lost: [1-9]" "indirectly lost: [1-9]")
  if(err MATCHES "${forbidden}")
    message(FATAL_ERROR "memcheck: ${forbidden}")
  endif()
endforeach()
