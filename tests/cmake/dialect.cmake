# The dialect check: the dialect table and generated patterns against the C++
# library's own std::regex, compiled with clang and libc++ (the library of the
# macOS build), exceptions on, outside the product. Needs clang and
# libc++-14-dev; without them the check is left out.
find_program(CORVANE_CLANGXX NAMES clang++ clang++-14)
set(CORVANE_ORACLE_SOURCE ${CMAKE_CURRENT_SOURCE_DIR}/dialect/ecmascript_oracle.cc)
set(CORVANE_ORACLE ${CMAKE_CURRENT_BINARY_DIR}/ecmascript_oracle)
if(CORVANE_CLANGXX)
  execute_process(COMMAND ${CORVANE_CLANGXX} -std=c++17 -stdlib=libc++ -fsyntax-only ${CORVANE_ORACLE_SOURCE}
                  RESULT_VARIABLE CORVANE_LIBCXX_MISSING OUTPUT_QUIET ERROR_QUIET)
endif()
if(CORVANE_CLANGXX AND NOT CORVANE_LIBCXX_MISSING)
  add_custom_command(OUTPUT ${CORVANE_ORACLE}
    COMMAND ${CORVANE_CLANGXX} -std=c++17 -O1 -stdlib=libc++ ${CORVANE_ORACLE_SOURCE} -o ${CORVANE_ORACLE}
    DEPENDS ${CORVANE_ORACLE_SOURCE})
  add_custom_target(corvane_ecmascript_oracle ALL DEPENDS ${CORVANE_ORACLE})
  add_executable(corvane_dialect_check ${CMAKE_CURRENT_SOURCE_DIR}/dialect/dialect_check.cc)
  target_link_libraries(corvane_dialect_check PRIVATE corvane_platform_linux)
  add_dependencies(corvane_dialect_check corvane_ecmascript_oracle)
  add_test(NAME DialectAgreesWithTheCppLibrary COMMAND corvane_dialect_check ${CORVANE_ORACLE} 20000)
else()
  message(STATUS "clang++ with libc++ not found: the dialect check against std::regex is left out")
endif()
