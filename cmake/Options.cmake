# What every target is built with, and the two functions by which libraries and tests are declared.

set( CMAKE_CXX_STANDARD 20 )
set( CMAKE_CXX_STANDARD_REQUIRED ON )
set( CMAKE_CXX_EXTENSIONS OFF )
set( CMAKE_CXX_VISIBILITY_PRESET hidden )
set( CMAKE_VISIBILITY_INLINES_HIDDEN ON )
set( CMAKE_POSITION_INDEPENDENT_CODE ON )
set( CMAKE_EXPORT_COMPILE_COMMANDS ON )
set( CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib )
set( CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin )
if( NOT CMAKE_BUILD_TYPE )
    set( CMAKE_BUILD_TYPE RelWithDebInfo )
endif()

find_program( QELKRELL_CCACHE ccache )
if( QELKRELL_CCACHE )
    set( CMAKE_CXX_COMPILER_LAUNCHER ${QELKRELL_CCACHE} )
endif()

# "": native; "32": 32-bit x86, the reference ABI. SSE2 is the base line there too: 64-bit atomic
# loads and stores are single moves then, also from read-only pages.
set( QELKRELL_WIDTH "" CACHE STRING "32 for 32-bit x86" )
# "", "address" (with undefined behaviour) or "thread".
set( QELKRELL_SANITIZE "" CACHE STRING "address or thread" )

# File sizes and inode numbers of 64 bits, on 32-bit x86 too: the memory file system numbers that far.
add_compile_definitions( _FILE_OFFSET_BITS=64 )

add_library( qelkrell_options INTERFACE )
target_compile_options( qelkrell_options INTERFACE -Wall -Wextra -Wpedantic -Werror )
if( QELKRELL_WIDTH STREQUAL "32" )
    add_compile_options( -m32 -msse2 -mfpmath=sse )
    add_link_options( -m32 )
endif()
if( QELKRELL_SANITIZE STREQUAL "address" )
    add_compile_options( -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer )
    add_link_options( -fsanitize=address,undefined )
elseif( QELKRELL_SANITIZE STREQUAL "thread" )
    add_compile_options( -fsanitize=thread -fno-omit-frame-pointer )
    add_link_options( -fsanitize=thread )
endif()

include( Exports )

# The number in the libraries' names, which says which binaries fit. A minor release may change them
# in any way as long as the major version is 0, so that is 0.1, 0.2, ... until then, and 1, 2, ...
# from 1.0 on. Programs ask for this name: one release of another number stands beside this one.
set( QELKRELL_SOVERSION ${PROJECT_VERSION_MAJOR} )
if( PROJECT_VERSION_MAJOR EQUAL 0 )
    string( APPEND QELKRELL_SOVERSION .${PROJECT_VERSION_MINOR} )
endif()

# One of the shared libraries, from every source that the globs name. It shows what is marked for
# export in the namespace of its own name.
function( qelkrell_library name )
    cmake_parse_arguments( ARG "" "INCLUDES" "SOURCES;LINKS" ${ARGN} )
    set( sources )
    foreach( pattern ${ARG_SOURCES} )
        file( GLOB found CONFIGURE_DEPENDS ${pattern} )
        list( APPEND sources ${found} )
    endforeach()
    add_library( ${name} SHARED ${sources} )
    add_library( QelKrell::${name} ALIAS ${name} ) # its name outside of this tree
    target_include_directories( ${name} PUBLIC $<BUILD_INTERFACE:${ARG_INCLUDES}> $<INSTALL_INTERFACE:include> )
    target_compile_features( ${name} PUBLIC cxx_std_20 )
    target_link_libraries( ${name} PUBLIC ${ARG_LINKS} PRIVATE $<BUILD_INTERFACE:qelkrell_options> )
    if( name STREQUAL "QelKrell" )
        # The collection headers are compiled into the binding, and Krell::Platform is defined there.
        qelkrell_exports( QelKrell NAMESPACES QelKrell Krell
            SYMBOLS _ZN3Qel12strepToValueIN8QelKrell* )
    else()
        qelkrell_exports( ${name} NAMESPACES ${name} )
    endif()
    # Installed together, they find each other wherever that is.
    set_target_properties( ${name} PROPERTIES INSTALL_RPATH $ORIGIN )
    set_target_properties( ${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${QELKRELL_SOVERSION} )
endfunction()
