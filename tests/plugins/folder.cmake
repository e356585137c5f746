# Libraries of types that the tests load.
foreach( name first second liar silent )
    add_library( types-${name} MODULE plugins/types/${name}.cpp )
    target_link_libraries( types-${name} PRIVATE QelKrell qelkrell_options )
    set_target_properties( types-${name} PROPERTIES LIBRARY_OUTPUT_DIRECTORY
        ${CMAKE_RUNTIME_OUTPUT_DIRECTORY} PREFIX "" )
    add_dependencies( test-plugins types-${name} )
    add_dependencies( test-programs types-${name} )
endforeach()
