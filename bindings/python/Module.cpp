// The extension module: the libraries' generic interface, and nothing that it does not say.

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <Qel/System>
#include <Qel/TypeLibrary>

#include "Errors.h"
#include "Shared.h"

namespace {

namespace py = pybind11;
using namespace QelKrellPython;

// Keeps a reaction.
class Watch {
public:
    explicit Watch( Qel::Ptr< Qel::Counted > reaction ) : reaction_( std::move( reaction ) ) {}
    void close() { reaction_ = nullptr; }

private:
    Qel::Ptr< Qel::Counted > reaction_;
};

py::list asList( const std::vector< Qel::String >& names ) {
    py::list list;
    for ( const Qel::String& name : names ) {
        list.append( name.stdString() );
    }
    return list;
}

// `name` of an object: an operation is something to call, all else is read.
template < class T >
py::object member( const py::object& self, const std::string& name ) {
    const T& object = self.cast< const T& >();
    if ( !object.isOperation( name ) ) {
        return object.attribute( name );
    }
    return py::cpp_function( [ self, name ]( const py::kwargs& arguments ) {
        return self.cast< const T& >().call( name, arguments );
    } );
}

void addValues( py::module_& m ) {
    py::class_< Value >( m, "Value", "A value of a type with attributes. It does not change." )
        .def( py::init( []( const std::string& type, const py::kwargs& attributes ) {
                  return Value( type, attributes );
              } ),
              py::arg( "type" ), py::pos_only() )
        .def_property_readonly( "__type__", &Value::type )
        .def( "__getattr__", &member< Value > )
        .def( "__getitem__",
              []( const Value& v, const std::string& name ) {
                  if ( !v.has( name ) || v.isOperation( name ) ) {
                      throw py::key_error( name );
                  }
                  return v.attribute( name );
              } )
        .def( "keys", &Value::names )
        .def( "__dir__", &Value::members )
        .def( "as_dict", &Value::items )
        .def( "__repr__", &Value::repr )
        .def( "__eq__",
              []( const Value& a, const py::object& b ) {
                  return py::isinstance< Value >( b ) &&
                         a.generic() == b.cast< const Value& >().generic();
              } )
        .def( "__hash__", []( const Value& v ) { return py::hash( py::str( v.strep() ) ); } );
    m.def(
        "load_types", []( const std::string& path ) { return asList( Qel::loadTypes( path ) ); },
        py::arg( "path" ), "Loads a library of types, and returns their names." );
    m.def(
        "type_names_in",
        []( const std::string& path ) { return asList( Qel::typeNamesIn( path ) ); },
        py::arg( "path" ), "The names of a library's types, without loading it." );
    m.def( "strep", &Value::strep, py::arg( "value" ), "The text form of a value." );
    m.def(
        "parse",
        []( const std::string& type, const std::string& text ) {
            const auto node = typeNamed( type );
            const Qel::String whole( text );
            auto at = whole.begin();
            if ( !node->ops().parse ) {
                throw Qel::TypeException( node->fullName() + " has no text form" );
            }
            const Qel::GenericValue value = node->ops().parse( at, whole.end() );
            Qel::refuseJunk( whole, at );
            return toPython( value );
        },
        py::arg( "type" ), py::arg( "text" ), "The value of that type that a text form says." );
}

void addShared( py::module_& m ) {
    py::class_< Watch >( m, "Watch", "Reactions are called while it lives." )
        .def( "close", &Watch::close );
    py::class_< Collection >( m, "Collection" )
        .def_property_readonly( "name", &Collection::name )
        .def(
            "get",
            []( const Collection& c, const py::object& key, const py::object& other ) {
                const py::object value = c.find( key );
                return value.is_none() ? other : value;
            },
            py::arg( "key" ), py::arg( "default" ) = py::none() )
        .def( "__getitem__",
              []( const Collection& c, const py::object& key ) {
                  const py::object value = c.find( key );
                  if ( value.is_none() ) {
                      PyErr_SetObject( PyExc_KeyError, key.ptr() );
                      throw py::error_already_set();
                  }
                  return value;
              } )
        .def( "__contains__", &Collection::contains )
        .def( "__len__", &Collection::size )
        .def( "keys", &Collection::keys )
        .def( "values", &Collection::values )
        .def( "__iter__", []( const Collection& c ) { return py::iter( c.keys() ); } )
        .def( "__setitem__", &Collection::put )
        .def( "__delitem__",
              []( Collection& c, const py::object& key ) {
                  if ( !c.del( key ) ) {
                      PyErr_SetObject( PyExc_KeyError, key.ptr() );
                      throw py::error_already_set();
                  }
              } )
        .def( "discard", &Collection::del, py::arg( "key" ) )
        .def_property_readonly( "control", &Collection::control )
        .def(
            "watch",
            []( const Collection& c, py::function reaction ) {
                return Watch( c.watch( std::move( reaction ) ) );
            },
            py::arg( "reaction" ) )
        .def( "__repr__", &Collection::repr );
    py::class_< Entity >( m, "Entity" )
        .def_property_readonly( "__type__", &Entity::type )
        .def_property_readonly( "__path__", &Entity::fullName )
        .def( "__getattr__", &member< Entity > )
        .def( "__setattr__", &Entity::attributeIs )
        .def( "__dir__", &Entity::names )
        .def( "__repr__", &Entity::repr );
    py::class_< Site >( m, "Site" )
        .def( py::init< const std::string&, bool >(), py::arg( "system" ),
              py::arg( "local" ) = false )
        .def( "mount", &Site::mount, py::arg( "path" ), py::arg( "type" ),
              py::arg( "role" ) = "reader", py::arg( "sizes" ) = py::dict(),
              py::arg( "cleanup" ) = false )
        .def( "unmount", &Site::unmount, py::arg( "path" ) )
        .def( "unmount_all", &Site::unmountAll )
        .def( "find", &Site::find, py::arg( "path" ) = "" )
        .def( "cleanup", &Site::cleanup, py::arg( "path" ) )
        .def_property_readonly( "root_path", &Site::rootPath );
}

// Reactions take the interpreter's lock for themselves.
void addLoop( py::module_& m ) {
    using Unlocked = py::call_guard< py::gil_scoped_release >;
    m.def( "run_once", &Qel::System::runOnce, py::arg( "seconds" ) = 0.0, Unlocked() );
    m.def(
        "run", [] { Qel::System::doRun(); }, Unlocked() );
    m.def( "stop", &Qel::System::stop );
    m.def( "descriptor", &Qel::System::descriptor );
}

} // namespace

PYBIND11_MODULE( _core, m ) {
    addErrors( m );
    addValues( m );
    addShared( m );
    addLoop( m );
}
