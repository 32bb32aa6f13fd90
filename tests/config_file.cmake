# Reading configurator.cfg: the text parse against protobuf's own parse of the
# generated message.
qvr_add_test(config_file_test SOURCES config_file_test.cpp LIBS configurator_core)
