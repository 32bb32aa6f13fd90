# End to end: the configurator binary under korva-driver-sim; and the
# simulator: its driver model on its own, and its command line.
find_package(nlohmann_json 3 REQUIRED)
# The faketime that runs the configurator is the target's: a cross build
# takes it from the sysroot (its preload library must match the target).
if(CMAKE_CROSSCOMPILING)
  find_program(QVR_FAKETIME faketime PATHS ${CMAKE_SYSROOT}/usr/bin NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
else()
  find_program(QVR_FAKETIME faketime)
endif()

# The configurator and the simulator run as processes, each test through the
# same support code.
foreach(name e2e_test korva_sim_test)
  qvr_add_test(${name}
    SOURCES ${name}.cpp e2e_support.cpp
    LIBS korva_sim_model configurator_core nlohmann_json::nlohmann_json
    LABELS target_programs)
  target_compile_definitions(${name} PRIVATE
    QVR_CONFIGURATOR_EXE="$<TARGET_FILE:qvr_configurator>"
    QVR_DRIVER_SIM_EXE="$<TARGET_FILE:korva-driver-sim>"
    QVR_FAKETIME_EXE="${QVR_FAKETIME}")
  add_dependencies(${name} qvr_configurator korva-driver-sim)
endforeach()
