# A preload library that moves a real program's wall clock, for the log
# expiry tests of the real dispatcher binary.
add_library(corvane_fake_clock SHARED ${CMAKE_CURRENT_SOURCE_DIR}/support/fake_clock.c)
target_compile_options(corvane_fake_clock PRIVATE -fno-sanitize=all)
target_link_options(corvane_fake_clock PRIVATE -fno-sanitize=all)
target_link_libraries(corvane_fake_clock PRIVATE dl)
set_target_properties(corvane_fake_clock PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
add_dependencies(corvane_integration_tests corvane_fake_clock)
target_compile_definitions(corvane_integration_tests PRIVATE
  CORVANE_FAKE_CLOCK_LIBRARY="$<TARGET_FILE:corvane_fake_clock>")
