# What ./dev torture does with the tests of this folder and others.
find_package( Python3 REQUIRED COMPONENTS Interpreter )
add_test( NAME torture.runner
    COMMAND ${Python3_EXECUTABLE} -B ${CMAKE_CURRENT_SOURCE_DIR}/torture/test_run.py )
