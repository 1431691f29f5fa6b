# A stand-in browser that records how it was started, for the launch tests
# of the workspace and of the real dispatcher binary; also a D-Bus-activatable
# application.
add_executable(corvane_recorder_browser ${CMAKE_CURRENT_SOURCE_DIR}/support/recorder_browser.cc)
set_target_properties(corvane_recorder_browser PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
target_link_libraries(corvane_recorder_browser PRIVATE PkgConfig::GIO)
foreach(tests corvane_unit_tests corvane_integration_tests)
  add_dependencies(${tests} corvane_recorder_browser)
  target_compile_definitions(${tests} PRIVATE
    CORVANE_RECORDER_BROWSER="$<TARGET_FILE:corvane_recorder_browser>")
endforeach()
