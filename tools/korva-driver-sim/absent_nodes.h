// The preload library that makes left-out device nodes fail to open
// (absent_nodes.cpp), as the simulator hands it to the program.
#pragma once

// Library file name; it is built next to the korva-driver-sim executable.
#define KORVA_SIM_ABSENT_NODES_LIBRARY "libkorva-sim-absent-nodes.so"
// Environment variable with the ':'-separated absolute paths of the absent nodes.
#define KORVA_SIM_ABSENT_NODES_VARIABLE "KORVA_SIM_ABSENT_NODES"
