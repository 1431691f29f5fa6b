# Real Chromium and Firefox get links through the installed dispatcher, on a
# virtual display with a session bus of their own. Not part of the plain test
# run (it needs the browsers): ctest -L real-browsers, which scripts/package.sh
# --check runs against the installed package.
add_executable(corvane_real_browsers_test ${CMAKE_CURRENT_SOURCE_DIR}/integration/real_browsers_test.cc)
target_link_libraries(corvane_real_browsers_test PRIVATE corvane_test_support GTest::gtest_main)
target_compile_definitions(corvane_real_browsers_test PRIVATE
  CORVANE_BUILD_DIR="${CMAKE_BINARY_DIR}" CORVANE_CMAKE="${CMAKE_COMMAND}")
# What `cmake --install` of this build takes.
add_dependencies(corvane_real_browsers_test corvane-dispatcher corvane-dispatcher-policy corvane_compressed_docs)
add_test(NAME RealBrowsers COMMAND xvfb-run --auto-servernum "--server-args=-nolisten tcp -screen 0 1280x1024x24"
         dbus-run-session -- $<TARGET_FILE:corvane_real_browsers_test>)
set_tests_properties(RealBrowsers PROPERTIES LABELS real-browsers TIMEOUT 300)
