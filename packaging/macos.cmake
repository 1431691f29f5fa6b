# "Corvane Dispatcher.app": the dispatcher as its executable, the policy tool
# beside it in Contents/MacOS (where code signing finds nested code), the
# configured Info.plist and the icon made from the SVG that Linux installs.

# The oldest system each architecture's binary runs on, which Info.plist
# promises no more than: the deployment target (or what the cross-building
# toolchain links for), and for arm64, whose Macs start at macOS 11, never
# less than 11.
if(NOT CORVANE_MACOS_DEPLOYMENT_TARGET)
  set(CORVANE_MACOS_DEPLOYMENT_TARGET "${CMAKE_OSX_DEPLOYMENT_TARGET}")
endif()
set(CORVANE_MACOS_MINIMUM_X86_64 "${CORVANE_MACOS_DEPLOYMENT_TARGET}")
set(CORVANE_MACOS_MINIMUM_ARM64 "${CORVANE_MACOS_DEPLOYMENT_TARGET}")
if(CORVANE_MACOS_MINIMUM_ARM64 VERSION_LESS 11.0)
  set(CORVANE_MACOS_MINIMUM_ARM64 11.0)
endif()
set(CORVANE_MACOS_MINIMUM "${CORVANE_MACOS_MINIMUM_X86_64}")
set(CORVANE_APP_INFO_PLIST "${CMAKE_CURRENT_BINARY_DIR}/packaging/Info.plist")
configure_file(${CMAKE_CURRENT_SOURCE_DIR}/platform/mac/Info.plist.in "${CORVANE_APP_INFO_PLIST}" @ONLY)

# rsvg-convert (librsvg; Homebrew's on a Mac) renders the SVG, Python packs the .icns.
find_program(CORVANE_RSVG_CONVERT rsvg-convert REQUIRED)
find_package(Python3 REQUIRED COMPONENTS Interpreter)
set(CORVANE_APP_ICON "${CMAKE_CURRENT_BINARY_DIR}/packaging/CorvaneDispatcher.icns")
add_custom_command(OUTPUT "${CORVANE_APP_ICON}"
  COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/packaging/make-icns.py ${CORVANE_RSVG_CONVERT}
          ${CMAKE_CURRENT_SOURCE_DIR}/packaging/com.halvard.corvane.dispatcher.svg "${CORVANE_APP_ICON}"
  DEPENDS packaging/make-icns.py packaging/com.halvard.corvane.dispatcher.svg
  VERBATIM)

set(CORVANE_APP "${CMAKE_CURRENT_BINARY_DIR}/Corvane Dispatcher.app")
set(CORVANE_APP_SIGN)
find_program(CORVANE_CODESIGN codesign)
if(CORVANE_CODESIGN)
  # Ad hoc, the policy tool included: seals Info.plist and the icon with the
  # executable, as arm64 Macs require of a bundle.
  set(CORVANE_APP_SIGN COMMAND ${CORVANE_CODESIGN} --force --deep --sign - ${CORVANE_APP})
endif()
add_custom_command(
  OUTPUT "${CORVANE_APP}/Contents/MacOS/corvane-dispatcher"
  COMMAND ${CMAKE_COMMAND} -E make_directory "${CORVANE_APP}/Contents/MacOS" "${CORVANE_APP}/Contents/Resources"
  COMMAND ${CMAKE_COMMAND} -E copy "${CORVANE_APP_INFO_PLIST}" "${CORVANE_APP}/Contents/Info.plist"
  COMMAND ${CMAKE_COMMAND} -E copy "${CORVANE_APP_ICON}" "${CORVANE_APP}/Contents/Resources/"
  COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_FILE:corvane-dispatcher-policy> "${CORVANE_APP}/Contents/MacOS/"
  COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_FILE:corvane-dispatcher> "${CORVANE_APP}/Contents/MacOS/"
  ${CORVANE_APP_SIGN}
  DEPENDS corvane-dispatcher corvane-dispatcher-policy "${CORVANE_APP_INFO_PLIST}" "${CORVANE_APP_ICON}"
  VERBATIM)
add_custom_target(corvane-dispatcher-app ALL DEPENDS "${CORVANE_APP}/Contents/MacOS/corvane-dispatcher")
install(DIRECTORY "${CORVANE_APP}" DESTINATION Applications USE_SOURCE_PERMISSIONS)
