# What `cmake --install` and `cpack` give: libraries, headers, find_package( QelKrell ) and a
# pkg-config file.

include( GNUInstallDirs )
include( CMakePackageConfigHelpers )

set( libraries Qel Dov Norvo Krell QelKrell )
set( package ${CMAKE_INSTALL_LIBDIR}/cmake/QelKrell )

install( TARGETS ${libraries} EXPORT QelKrellTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} )
foreach( library Qel Dov Norvo Krell )
    install( DIRECTORY libs/${library}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} )
endforeach()
install( DIRECTORY collection/Krell DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} PATTERN *.cpp EXCLUDE )
install( DIRECTORY src-includes/QelKrell DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} )

install( EXPORT QelKrellTargets NAMESPACE QelKrell:: DESTINATION ${package} )
configure_package_config_file( cmake/QelKrellConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/QelKrellConfig.cmake INSTALL_DESTINATION ${package} )
write_basic_package_version_file( ${CMAKE_CURRENT_BINARY_DIR}/QelKrellConfigVersion.cmake
    COMPATIBILITY SameMinorVersion )
install( FILES ${CMAKE_CURRENT_BINARY_DIR}/QelKrellConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/QelKrellConfigVersion.cmake DESTINATION ${package} )

file( RELATIVE_PATH up_to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig / )
configure_file( cmake/qelkrell.pc.in qelkrell.pc @ONLY )
install( FILES ${CMAKE_CURRENT_BINARY_DIR}/qelkrell.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig )

set( CPACK_GENERATOR DEB )
set( CPACK_PACKAGE_NAME qelkrell )
set( CPACK_PACKAGE_DESCRIPTION_SUMMARY "Shared-memory entity collections: libraries and headers" )
set( CPACK_PACKAGE_CONTACT "the QelKrell developers" )
set( CPACK_DEBIAN_FILE_NAME DEB-DEFAULT )
set( CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.36), libstdc++6 (>= 12), libgcc-s1" )
if( QELKRELL_WIDTH STREQUAL "32" )
    set( CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386 )
endif()
include( CPack )
