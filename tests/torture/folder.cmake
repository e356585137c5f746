# What ./dev torture does with the tests of this folder and others.
find_package( Python3 REQUIRED COMPONENTS Interpreter )
add_test( NAME torture.runner
    COMMAND ${Python3_EXECUTABLE} -B ${CMAKE_CURRENT_SOURCE_DIR}/torture/test_run.py )
# Each row has tests in what was built.
add_test( NAME torture.rows
    COMMAND ${Python3_EXECUTABLE} -B ${CMAKE_CURRENT_SOURCE_DIR}/torture/run.py --list --bits 64
        --bin64 ${CMAKE_RUNTIME_OUTPUT_DIRECTORY} )
