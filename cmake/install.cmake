# `cmake --install`: the configurator, the tools and the example tuning set,
# in the places GNUInstallDirs gives for this system.
include(GNUInstallDirs)

# Debian keeps liblog in a private folder (.../android): installed programs
# keep the link-time path to it.
set_target_properties(qvr_configurator qvrcs_tool korva-driver-sim PROPERTIES INSTALL_RPATH_USE_LINK_PATH ON)

# The boot tool and the host tool.
install(TARGETS qvr_configurator qvrcs_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# The simulated driver finds its preload library next to its own executable,
# so both live in a private folder, reached through a link in the bin folder.
set(qvr_private_dir ${CMAKE_INSTALL_LIBEXECDIR}/${PROJECT_NAME})
install(TARGETS korva-driver-sim RUNTIME DESTINATION ${qvr_private_dir})
install(TARGETS korva-sim-preload LIBRARY DESTINATION ${qvr_private_dir})
file(RELATIVE_PATH qvr_sim_link_target
  /${CMAKE_INSTALL_BINDIR} /${qvr_private_dir}/korva-driver-sim)
install(CODE "
  set(bindir \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
  file(MAKE_DIRECTORY \"\${bindir}\")
  file(CREATE_LINK \"${qvr_sim_link_target}\" \"\${bindir}/korva-driver-sim\" SYMBOLIC)
  message(STATUS \"Installing: \${bindir}/korva-driver-sim -> ${qvr_sim_link_target}\")")

# The example tuning set: a complete search path for the configurator
# (qvr_configurator <docdir>/examples/tuning), and its text sources.
install(DIRECTORY ${QVR_EXAMPLES_DIR}/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples/tuning
  FILES_MATCHING PATTERN "*.cfg" PATTERN "*.bin" PATTERN "max.bin" EXCLUDE)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/src/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples/src)
