# The device build's files (Android.bp, SELinux policy, .rc) against the tree's sources.
qvr_add_test(device_build_test SOURCES device_build_test.cpp LIBS configurator_core)
target_compile_definitions(device_build_test PRIVATE QVR_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
