# What `cmake --install` gives, in components: the libraries (runtime); headers, find_package(
# QelKrell ), a pkg-config file, documents and examples (development); the tool krell (tools); the
# Python package (python). Installed together they find each other wherever that is.

# Debian's directory of the libraries is named after the architecture, which the compiler's options
# have changed here.
if( QELKRELL_WIDTH STREQUAL "32" )
    set( CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu )
endif()
include( GNUInstallDirs )
include( CMakePackageConfigHelpers )
set( QELKRELL_PYTHON_DIR lib/python3/dist-packages CACHE STRING
    "Where the Python package is installed, below the prefix" )

set( libraries Qel Dov Norvo Krell QelKrell )
set( package ${CMAKE_INSTALL_LIBDIR}/cmake/QelKrell )
set( documents ${CMAKE_INSTALL_DATAROOTDIR}/doc )

# Parts of libKrell, which no header that users include needs.
set( internal_headers DoorbellFence Recovery Structure )

install( TARGETS ${libraries} EXPORT QelKrellTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development )

foreach( library Qel Dov Norvo Krell )
    list( TRANSFORM internal_headers REPLACE "(.+)" "PATTERN;\\1;EXCLUDE" OUTPUT_VARIABLE excluded )
    install( DIRECTORY libs/${library}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT development ${excluded} )
endforeach()
install( DIRECTORY collection/Krell src-includes/QelKrell DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    COMPONENT development PATTERN *.cpp EXCLUDE )

install( EXPORT QelKrellTargets NAMESPACE QelKrell:: DESTINATION ${package}
    COMPONENT development )
configure_package_config_file( cmake/QelKrellConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/QelKrellConfig.cmake INSTALL_DESTINATION ${package} )
write_basic_package_version_file( ${CMAKE_CURRENT_BINARY_DIR}/QelKrellConfigVersion.cmake
    COMPATIBILITY SameMinorVersion )
install( FILES ${CMAKE_CURRENT_BINARY_DIR}/QelKrellConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/QelKrellConfigVersion.cmake DESTINATION ${package}
    COMPONENT development )

file( RELATIVE_PATH up_to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig / )
configure_file( cmake/qelkrell.pc.in qelkrell.pc @ONLY )
install( FILES ${CMAKE_CURRENT_BINARY_DIR}/qelkrell.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development )

# Links in README.md lead below docs/.
install( FILES README.md DESTINATION ${documents}/libqelkrell-dev COMPONENT development )
install( DIRECTORY docs DESTINATION ${documents}/libqelkrell-dev COMPONENT development
    FILES_MATCHING PATTERN *.md )
install( DIRECTORY examples/plant DESTINATION ${documents}/libqelkrell-dev/examples
    COMPONENT development FILES_MATCHING PATTERN *.cpp PATTERN *.h PATTERN CMakeLists.txt )

# find_libraries( target directory ): the target, installed in that directory, finds the libraries.
function( find_libraries target directory )
    file( RELATIVE_PATH libraries_there /${directory} /${CMAKE_INSTALL_LIBDIR} )
    set_target_properties( ${target} PROPERTIES INSTALL_RPATH $ORIGIN/${libraries_there} )
endfunction()

if( TARGET krell )
    find_libraries( krell ${CMAKE_INSTALL_BINDIR} )
    install( TARGETS krell RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools )
    install( FILES docs/tool.md tools/krell/dashboard.json DESTINATION ${documents}/qelkrell-tools COMPONENT tools )
endif()
if( TARGET python_core )
    set( modules ${QELKRELL_PYTHON_DIR}/qelkrell )
    find_libraries( python_core ${modules} )
    install( TARGETS python_core LIBRARY DESTINATION ${modules} COMPONENT python )
    foreach( file __init__.py __init__.pyi py.typed )
        install( FILES bindings/python/qelkrell/${file} DESTINATION ${modules} COMPONENT python )
    endforeach()
    install( FILES docs/python.md DESTINATION ${documents}/python3-qelkrell COMPONENT python )
endif()
