# Schemas of the tuning files and of configurator.cfg.
qvr_add_test(schema_test SOURCES schema_test.cpp LIBS qvr_proto)
