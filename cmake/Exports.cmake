# What a library shows to others: the names in its own namespaces, and nothing that the standard
# library's templates left in it.
#
# qelkrell_exports( target NAMESPACES ns... [SYMBOLS pattern...] )
#   NAMESPACES   every visible name in them: functions, data, type information, vtables, thunks,
#                static locals and their guards
#   SYMBOLS      further patterns of mangled names
# Mangled names are matched because the readable name of a function template begins with its result.
function( qelkrell_exports target )
    cmake_parse_arguments( ARG "" "" "NAMESPACES;SYMBOLS" ${ARGN} )
    set( patterns ${ARG_SYMBOLS} )
    foreach( namespace ${ARG_NAMESPACES} )
        string( LENGTH ${namespace} length )
        set( name ${length}${namespace} )
        foreach( kind ZN ZNK ZTVN ZTIN ZTSN ZTTN ZTCN ZThn*_N ZThn*_NK ZTv*_N ZTv*_NK ZTc*_N
                      ZTc*_NK ZGVN ZZN ZZNK ZGVZN ZGVZNK )
            list( APPEND patterns _${kind}${name}* )
        endforeach()
    endforeach()
    list( JOIN patterns "; " text )
    set( map ${CMAKE_CURRENT_BINARY_DIR}/${target}.map )
    file( CONFIGURE OUTPUT ${map} CONTENT "{ global: @text@; local: *; };\n" @ONLY )
    target_link_options( ${target} PRIVATE LINKER:--version-script=${map} )
    set_property( TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${map} )
endfunction()
