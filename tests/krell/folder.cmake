# Tests that stop and kill a writer at every place where that makes a difference: the library's
# sources once more, with these places compiled in.
file( GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/libs/Krell/src/*.cpp )
file( GLOB tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/krell/crash/*.cpp )
add_executable( test-krell-crash ${tests} krell/EngineSupport.cpp krell/Hooks.cpp ${sources} )
target_compile_definitions( test-krell-crash PRIVATE KRELL_CRASH_POINTS )
target_include_directories( test-krell-crash PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}
    ${PROJECT_SOURCE_DIR}/libs/Krell/include ${PROJECT_SOURCE_DIR}/collection
    ${PROJECT_SOURCE_DIR}/src-includes )
if( QELKRELL_UNITY GREATER 1 )
    set_target_properties( test-krell-crash PROPERTIES UNITY_BUILD ON UNITY_BUILD_MODE GROUP )
    set_source_files_properties( ${tests} PROPERTIES UNITY_GROUP tests )
endif()
target_link_libraries( test-krell-crash PRIVATE Dov Qel qelkrell_options GTest::gmock_main )
gtest_discover_tests( test-krell-crash TEST_PREFIX krell. DISCOVERY_MODE PRE_TEST )
