// Values between Python and the generic interface.

#pragma once

#include <pybind11/pybind11.h>

#include <Qel/GenericIf>

namespace QelKrellPython {

namespace py = pybind11;

// A value of a type with attributes, as Python holds it.
class Value {
public:
    explicit Value( Qel::GenericValue value ) : value_( std::move( value ) ) {}
    // Of the named type, with these attributes; the others have their defaults.
    Value( const std::string& type, const py::dict& attributes );

    const Qel::GenericValue& generic() const noexcept { return value_; }
    std::string type() const { return value_.typeName().stdString(); }
    std::string strep() const { return value_.strep().stdString(); }
    std::string repr() const;
    py::object attribute( const std::string& name ) const;
    bool has( const std::string& name ) const;
    py::list names() const;   // of attributes that are no operations
    py::list members() const; // operations too
    py::dict items() const;
    py::object call( const std::string& operation, const py::kwargs& arguments ) const;
    bool isOperation( const std::string& name ) const;

private:
    Qel::Ptr< Qel::GenericIf > face() const;

    Qel::GenericValue value_;
};

// None, bool, int, float, str; a Value; a list; what the text form says for anything else.
py::object toPython( const Qel::GenericValue& value );

// A value of that type from such an object, or from a dict of attributes.
//   errors   TypeError: an object that has no text form; RangeException as the parser says it
Qel::GenericValue fromPython( const py::handle& object, const Qel::Ptr< Qel::QelType >& type );

// The arguments of an operation of that type, each of its declared type.
Qel::GenericArguments argumentsFrom( const Qel::QelType& type,
                                     const std::string& operation,
                                     const py::kwargs& arguments );

// The type of that name. UnknownTypeError, as a RangeException, names it otherwise.
Qel::Ptr< Qel::QelType > typeNamed( const std::string& name );

} // namespace QelKrellPython
