# The same through the public interface, with the binding's own hooks in place of the tests'.
file( GLOB tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/faults/mount/*.cpp )
add_executable( test-faults-mount ${tests} $<TARGET_OBJECTS:support-mount> )
target_include_directories( test-faults-mount PRIVATE ${CMAKE_CURRENT_SOURCE_DIR} )
target_link_libraries( test-faults-mount PRIVATE links-mount GTest::gmock_main )
gtest_discover_tests( test-faults-mount TEST_PREFIX faults.mount. DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 60 )
