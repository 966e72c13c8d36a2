# gantrel_bundle(TARGET INFO_PLIST_IN COMPONENT): lays an executable out as an application bundle,
# TARGET.app/Contents/Info.plist and TARGET.app/Contents/Linux/TARGET, at the top of the build folder, and
# installs it as one, with the component of the installation that it belongs to.
function(gantrel_bundle target info_plist component)
  set(contents "${target}.app/Contents")
  set_target_properties(${target} PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/${contents}/Linux")
  configure_file("${info_plist}" "${PROJECT_BINARY_DIR}/${contents}/Info.plist" @ONLY)
  install(TARGETS ${target}
    RUNTIME DESTINATION "${GANTREL_INSTALL_BUNDLEDIR}/${contents}/Linux" COMPONENT ${component})
  install(FILES "${PROJECT_BINARY_DIR}/${contents}/Info.plist"
    DESTINATION "${GANTREL_INSTALL_BUNDLEDIR}/${contents}" COMPONENT ${component})
endfunction()
