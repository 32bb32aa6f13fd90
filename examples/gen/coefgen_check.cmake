# Runs coefgen once on SOURCE, writing into the directory SCRATCH.
#   MODE=reproduce: the output must equal the file EXPECTED byte for byte.
#   MODE=reject:    coefgen must fail, print a line matching the regular
#                   expression EXPECTED, and leave no output file.
file(REMOVE_RECURSE "${SCRATCH}")
file(MAKE_DIRECTORY "${SCRATCH}")
set(output "${SCRATCH}/out.textproto")
execute_process(COMMAND "${COEFGEN}" "${SOURCE}" "${output}"
  RESULT_VARIABLE result ERROR_VARIABLE errors)

if(MODE STREQUAL "reproduce")
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "coefgen failed (${result}): ${errors}")
  endif()
  execute_process(COMMAND "${CMAKE_COMMAND}" -E compare_files "${output}" "${EXPECTED}"
    RESULT_VARIABLE differ)
  if(NOT differ EQUAL 0)
    message(FATAL_ERROR "second run of coefgen on ${SOURCE} differs from ${EXPECTED}")
  endif()
elseif(MODE STREQUAL "reject")
  if(result EQUAL 0)
    message(FATAL_ERROR "coefgen accepted ${SOURCE}")
  endif()
  if(NOT errors MATCHES "${EXPECTED}")
    message(FATAL_ERROR "coefgen said '${errors}', expected '${EXPECTED}'")
  endif()
  if(EXISTS "${output}")
    message(FATAL_ERROR "coefgen left ${output} behind")
  endif()
else()
  message(FATAL_ERROR "MODE must be reproduce or reject")
endif()
