# Postmix block sections (coefficient tables, rooms, headphone EQ, AEQ), the
# whole postmix block, and the tuning file reader.
qvr_add_test(postmix_sections_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/postmix_coef_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/postmix_rooms_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/postmix_aeq_test.cpp
  LIBS qvrcs_conversion)

qvr_add_test(postmix_block_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/postmix_block_test.cpp
  LIBS qvrcs_conversion)

qvr_add_test(tuning_reader_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/tuning_reader_test.cpp
  LIBS configurator_core GTest::gmock)
