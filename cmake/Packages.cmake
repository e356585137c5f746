# What `cpack` gives: Debian packages, one for each component of Install.cmake. `./dev packages`
# builds them as they are meant to be, below /usr and without search paths of their own.

string( TOLOWER libqelkrell${QELKRELL_SOVERSION} runtime_package )
set( exactly "(= ${PROJECT_VERSION})" )

set( CPACK_GENERATOR DEB )
set( CPACK_PACKAGE_NAME qelkrell )
set( CPACK_PACKAGE_CONTACT "the QelKrell developers" )
set( CPACK_PACKAGING_INSTALL_PREFIX /usr )
set( CPACK_STRIP_FILES ON )
set( CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
    GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE )
set( CPACK_DEBIAN_FILE_NAME DEB-DEFAULT )
set( CPACK_DEBIAN_COMPRESSION_TYPE xz )
set( CPACK_DEBIAN_PACKAGE_SOURCE qelkrell )
set( CPACK_DEB_COMPONENT_INSTALL ON )
set( CPACK_COMPONENTS_GROUPING IGNORE )
set( CPACK_COMPONENTS_ALL runtime development )

# Other packages' dependencies follow from the libraries' names: `shlibs`. Releases of one name may
# add to them.
set( CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON )
set( CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=" )
# Dependencies on the system follow from what the binaries need. Our own libraries are found where
# they are built; on these each package depends by name.
set( CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON )
set( CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY} )
if( QELKRELL_WIDTH STREQUAL "32" )
    # The libraries that are linked here are a 64-bit system's, in packages of other names.
    set( CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386 )
    set( CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF )
    set( CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6 (>= 2.36), libgcc-s1 (>= 12), libstdc++6 (>= 12)" )
endif()

# CPack of this version knows no field Multi-Arch; it stands on a line behind the priority. Libraries
# of both widths can be installed, as processes of both share collections.
set( both_widths "optional\nMulti-Arch: same" )

set( CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime_package} )
set( CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs )
set( CPACK_DEBIAN_RUNTIME_PACKAGE_PRIORITY ${both_widths} )
set( CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/triggers )
set( CPACK_COMPONENT_RUNTIME_DESCRIPTION "entities whose collections processes share in memory
Many processes on one machine keep one state, as typed entities in a tree of
directories. One writer process changes a collection, any number of readers
read it in place, without system calls, and are told what changed. Killing
any of them at any time loses nothing.

These are the libraries." )

set( CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libqelkrell-dev )
set( CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel )
set( CPACK_DEBIAN_DEVELOPMENT_PACKAGE_PRIORITY ${both_widths} )
set( CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${runtime_package} ${exactly}" )
set( CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF )
set( CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "entities whose collections processes share in memory: development
C++20 headers, files for CMake's find_package and for pkg-config, documents
and examples. See ${runtime_package} for what it is." )

if( TARGET krell )
    list( APPEND CPACK_COMPONENTS_ALL tools )
    set( CPACK_DEBIAN_TOOLS_PACKAGE_NAME qelkrell-tools )
    set( CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils )
    set( CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${runtime_package} ${exactly}" )
    set( CPACK_COMPONENT_TOOLS_DESCRIPTION "look at collections that processes share in memory
The command krell tells which collections there are, who writes and reads
them, what they hold, what changes and what is wrong. It takes no lock and
writes nothing. See ${runtime_package} for what these collections are." )
endif()

if( TARGET python_core )
    list( APPEND CPACK_COMPONENTS_ALL python )
    # The module fits one version of the interpreter.
    set( version ${PYTHON_VERSION_MAJOR}.${PYTHON_VERSION_MINOR} )
    math( EXPR next_minor "${PYTHON_VERSION_MINOR} + 1" )
    set( CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-qelkrell )
    set( CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python )
    set( CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "${runtime_package} ${exactly}, \
python3 (>= ${version}), python3 (<< ${PYTHON_VERSION_MAJOR}.${next_minor})" )
    set( CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/postinst
        ${PROJECT_SOURCE_DIR}/packaging/debian/prerm )
    set( CPACK_COMPONENT_PYTHON_DESCRIPTION "share collections in memory with other processes (Python 3)
The generic interface to entities whose collections processes share in memory:
types are loaded from libraries, collections are read, written and followed,
also in asyncio's loop. See ${runtime_package} for what it is." )
endif()

# A licence, once the tree has one, is part of each package.
foreach( component ${CPACK_COMPONENTS_ALL} )
    string( TOUPPER ${component} upper )
    if( EXISTS ${PROJECT_SOURCE_DIR}/LICENSE )
        install( FILES LICENSE RENAME copyright COMPONENT ${component}
            DESTINATION ${documents}/${CPACK_DEBIAN_${upper}_PACKAGE_NAME} )
    endif()
endforeach()
include( CPack )
