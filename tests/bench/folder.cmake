# The report of the benchmarks; whoever runs it needs no package of theirs.
find_package( Python3 REQUIRED COMPONENTS Interpreter )
add_test( NAME bench.report
    COMMAND ${Python3_EXECUTABLE} -B ${CMAKE_CURRENT_SOURCE_DIR}/bench/test_figures.py )
