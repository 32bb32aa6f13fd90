# Encodes one text-format tuning source into a binary Qvrcs tuning file.
#
#   cmake -DPROTOC=<protoc> -DPROTO_DIR=<schemas> -DINPUT=<.textproto> -DOUTPUT=<.bin>
#         -P encode.cmake
#
# protoc reads the text on standard input and writes the encoding on standard
# output; a parse error fails the build with protoc's line and column, and
# leaves no half-written output behind.
foreach(var PROTOC PROTO_DIR INPUT OUTPUT)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "encode.cmake: ${var} is not set")
  endif()
endforeach()

set(partial "${OUTPUT}.partial")
execute_process(
  COMMAND "${PROTOC}" --encode=com.qvr.pb.wbn.Qvrcs -I "${PROTO_DIR}" qvrcsPB.proto
  INPUT_FILE "${INPUT}"
  OUTPUT_FILE "${partial}"
  ERROR_VARIABLE errors
  RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  file(REMOVE "${partial}")
  message(FATAL_ERROR "encoding ${INPUT} failed:\n${errors}")
endif()
file(RENAME "${partial}" "${OUTPUT}")
