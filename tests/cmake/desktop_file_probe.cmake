# Answers a desktop file id lookup both as GIO does and as the dispatcher
# does, for the test that holds the two to the same file.
add_executable(corvane_desktop_file_probe ${CMAKE_CURRENT_SOURCE_DIR}/support/desktop_file_probe.cc)
set_target_properties(corvane_desktop_file_probe PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
target_link_libraries(corvane_desktop_file_probe PRIVATE corvane_platform_linux)
add_dependencies(corvane_unit_tests corvane_desktop_file_probe)
target_compile_definitions(corvane_unit_tests PRIVATE
  CORVANE_DESKTOP_FILE_PROBE="$<TARGET_FILE:corvane_desktop_file_probe>")
