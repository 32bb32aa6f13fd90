# Premix block, postmix control section, their field maps and the templates.
qvr_add_test(premix_test SOURCES premix_test.cpp LIBS qvrcs_conversion)
qvr_add_test(postmix_controls_test SOURCES postmix_controls_test.cpp LIBS qvrcs_conversion)
qvr_add_test(block_map_test SOURCES block_map_test.cpp LIBS qvrcs_conversion)
