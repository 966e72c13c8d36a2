# gantrel_bundle(TARGET INFO_PLIST_IN): lays an executable out as an application bundle,
# TARGET.app/Contents/Info.plist and TARGET.app/Contents/Linux/TARGET, at the top of the build folder.
function(gantrel_bundle target info_plist)
  set(contents "${PROJECT_BINARY_DIR}/${target}.app/Contents")
  set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${contents}/Linux")
  configure_file("${info_plist}" "${contents}/Info.plist" @ONLY)
endfunction()
