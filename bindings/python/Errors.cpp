#include "Errors.h"

#include <map>
#include <optional>
#include <string>
#include <typeindex>

#include <Krell/Exception>
#include <Qel/Text>
#include <QelKrell/Exception>

namespace QelKrellPython {

namespace py = pybind11;

namespace {

// Kept for the life of the process, as the module is.
struct Errors {
    py::object base;
    std::map< std::type_index, py::object > byType;
    std::map< std::string, py::object > byName;
};
Errors& errors() {
    static Errors* const all = new Errors;
    return *all;
}

template < class E >
void add( py::module_& module, const char* name, const py::object& bases ) {
    const auto type = py::reinterpret_steal< py::object >(
        PyErr_NewException( ( "qelkrell." + std::string( name ) ).c_str(), bases.ptr(), nullptr ) );
    if ( !type ) {
        throw py::error_already_set();
    }
    module.add_object( name, type );
    errors().byType.emplace( typeid( E ), type );
    errors().byName.emplace( name, type );
}

py::object typeOf( const Qel::Exception& e ) {
    const auto found = errors().byType.find( typeid( e ) );
    return found == errors().byType.end() ? errors().base : found->second;
}
py::object typeOf( const Krell::Exception& e ) {
    const auto found = errors().byName.find( e.name() );
    return found == errors().byName.end() ? errors().base : found->second;
}

void raise( const py::object& type, const std::string& text, std::optional< Qel::U32 > pid = {} ) {
    const py::object error = type( text );
    if ( pid ) {
        error.attr( "pid" ) = *pid; // of the process that writes; 0: it cannot be seen from here
    }
    PyErr_SetObject( type.ptr(), error.ptr() );
}

void translate( std::exception_ptr exception ) {
    try {
        std::rethrow_exception( std::move( exception ) );
    } catch ( const QelKrell::DuplicateWriterException& e ) {
        raise( typeOf( e ), e.what(), e.krellDetail() );
    } catch ( const Qel::Exception& e ) {
        raise( typeOf( e ), e.what() );
    } catch ( const Krell::Exception& e ) {
        raise( typeOf( e ), e.msg() );
    }
}

} // namespace

void addErrors( py::module_& module ) {
    const auto python = []( PyObject* type ) {
        return py::reinterpret_borrow< py::object >( type );
    };
    errors().base = py::reinterpret_steal< py::object >(
        PyErr_NewException( "qelkrell.Error", PyExc_Exception, nullptr ) );
    const py::object base = errors().base;
    module.add_object( "Error", base );
    const auto both = [ & ]( PyObject* type ) { return py::make_tuple( base, python( type ) ); };

    add< Qel::InternalException >( module, "InternalException", both( PyExc_RuntimeError ) );
    add< Qel::RangeException >( module, "RangeException", both( PyExc_ValueError ) );
    add< Qel::EndOfTextException >( module, "EndOfTextException",
                                    py::make_tuple( errors().byName.at( "RangeException" ) ) );
    add< Qel::MemoryException >( module, "MemoryException", both( PyExc_MemoryError ) );
    add< Qel::NoImplementationException >( module, "NoImplementationException",
                                           both( PyExc_NotImplementedError ) );
    add< Qel::TimeoutException >( module, "TimeoutException", both( PyExc_TimeoutError ) );
    add< Qel::PermissionException >( module, "PermissionException", both( PyExc_PermissionError ) );
    add< Qel::NameInUseException >( module, "NameInUseException", both( PyExc_ValueError ) );
    add< Qel::SystemException >( module, "SystemException", both( PyExc_OSError ) );
    add< Qel::UnknownAttributeException >( module, "UnknownAttributeException",
                                           both( PyExc_AttributeError ) );
    add< Qel::BadIndexException >( module, "BadIndexException", both( PyExc_IndexError ) );
    add< Qel::TypeException >( module, "TypeException", both( PyExc_TypeError ) );
    add< Qel::UnknownArgumentException >( module, "UnknownArgumentException",
                                          both( PyExc_TypeError ) );
    add< Qel::MissingArgumentException >( module, "MissingArgumentException",
                                          both( PyExc_TypeError ) );
    add< Qel::RepeatedArgumentException >( module, "RepeatedArgumentException",
                                           both( PyExc_TypeError ) );
    add< Qel::OpNotSupportedException >( module, "OpNotSupportedException",
                                         both( PyExc_TypeError ) );
    add< Qel::ConstException >( module, "ConstException", both( PyExc_TypeError ) );
    add< QelKrell::MountException >( module, "MountException", both( PyExc_RuntimeError ) );
    add< QelKrell::InvalidInitializeException >( module, "InvalidInitializeException",
                                                 both( PyExc_ValueError ) );
    add< QelKrell::CorruptionDetectedException >( module, "CorruptionDetectedException",
                                                  both( PyExc_RuntimeError ) );
    add< QelKrell::InvalidMountStatusException >( module, "InvalidMountStatusException",
                                                  both( PyExc_RuntimeError ) );
    add< QelKrell::MemoryResourceException >( module, "MemoryResourceException",
                                              both( PyExc_MemoryError ) );
    add< QelKrell::UnimplementedException >( module, "UnimplementedException",
                                             both( PyExc_NotImplementedError ) );
    add< QelKrell::DuplicateWriterException >( module, "DuplicateWriterException",
                                               both( PyExc_RuntimeError ) );
    py::register_exception_translator( &translate );
}

} // namespace QelKrellPython
