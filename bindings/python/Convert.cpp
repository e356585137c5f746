#include "Convert.h"

#include <Qel/TypeOf>

namespace QelKrellPython {

using Qel::GenericValue;
using Qel::Ptr;
using Qel::QelType;
using Qel::String;

namespace {

template < class T >
bool tryNumber( const GenericValue& value, py::object& out ) {
    const T* const number = value.as< T >();
    if ( number ) {
        out = py::cast( *number );
    }
    return number != nullptr;
}

// Text is bytes in the framework; what is no UTF-8 in it comes as lone surrogates, and goes back
// so.
py::object textToPython( const std::string& text ) {
    return py::reinterpret_steal< py::object >(
        PyUnicode_DecodeUTF8( text.data(), Py_ssize_t( text.size() ), "surrogateescape" ) );
}
std::string textFromPython( const py::handle& text ) {
    const auto bytes = py::reinterpret_steal< py::bytes >(
        PyUnicode_AsEncodedString( text.ptr(), "utf-8", "surrogateescape" ) );
    if ( !bytes ) {
        throw py::error_already_set();
    }
    return bytes;
}

// The text form of a Python object; `type` is what a dict is to become, if it is known.
class Speller {
public:
    std::string text( const py::handle& object, const Ptr< QelType >& type ) {
        spell( object, type );
        return std::move( out_ );
    }

private:
    void spell( const py::handle& object, const Ptr< QelType >& type ) {
        if ( object.is_none() ) {
            out_ += "None";
        } else if ( py::isinstance< Value >( object ) ) {
            out_ += object.cast< const Value& >().strep();
        } else if ( PyBool_Check( object.ptr() ) ) {
            out_ += object.cast< bool >() ? "True" : "False";
        } else if ( PyIndex_Check( object.ptr() ) ) {
            const auto number =
                py::reinterpret_steal< py::object >( PyNumber_Index( object.ptr() ) );
            out_ += std::string( py::str( number ) );
        } else if ( PyFloat_Check( object.ptr() ) ) {
            out_ += Qel::valueToStrep( object.cast< double >() ).stdString();
        } else if ( PyUnicode_Check( object.ptr() ) ) {
            out_ += Qel::valueToStrep( String( textFromPython( object ) ) ).stdString();
        } else if ( PyDict_Check( object.ptr() ) ) {
            spellAttributes( py::reinterpret_borrow< py::dict >( object ), type );
        } else if ( PyList_Check( object.ptr() ) || PyTuple_Check( object.ptr() ) ) {
            spellList( py::reinterpret_borrow< py::sequence >( object ) );
        } else if ( isAddress( object ) ) {
            out_ += Qel::valueToStrep( String( textFromPython( py::str( object ) ) ) ).stdString();
        } else {
            throw py::type_error( "no value of " +
                                  std::string( py::str( py::type::of( object ) ) ) +
                                  " can be shared" );
        }
    }
    static bool isAddress( const py::handle& object ) {
        const auto addresses = py::module_::import( "ipaddress" );
        return py::isinstance( object, addresses.attr( "IPv4Address" ) ) ||
               py::isinstance( object, addresses.attr( "IPv6Address" ) );
    }
    void spellAttributes( const py::dict& attributes, const Ptr< QelType >& type ) {
        if ( type && !type->hasGenericIfSupport() ) {
            throw py::type_error( "a dict is no " + type->fullName().stdString() );
        }
        if ( !type ) {
            throw py::type_error(
                "of which type this dict is cannot be told: use Value( type, ... )" );
        }
        out_ += "Value('" + type->fullName().stdString() + "', ** {";
        bool first = true;
        for ( const auto& [ key, value ] : attributes ) {
            if ( !PyUnicode_Check( key.ptr() ) ) {
                throw py::type_error( "the name of an attribute is a str" );
            }
            const std::string name = textFromPython( key );
            const Qel::QelAttr* const attr = type->attr( String( name ) );
            out_ += first ? "" : ", ";
            out_ += Qel::valueToStrep( String( name ) ).stdString() + ": ";
            spell( value, attr ? QelType::typeNode( attr->typeName ) : nullptr );
            first = false;
        }
        out_ += "})";
    }
    void spellList( const py::sequence& list ) {
        out_ += "[";
        for ( std::size_t i = 0; i < list.size(); ++i ) {
            out_ += i ? ", " : "";
            spell( list[ i ], nullptr );
        }
        out_ += "]";
    }

    std::string out_;
};

} // namespace

Ptr< QelType > typeNamed( const std::string& name ) {
    Ptr< QelType > type = QelType::typeNode( String( name ) );
    if ( !type ) {
        throw Qel::RangeException( "there is no type '" + String( name ) +
                                   "': load the library that has it" );
    }
    return type;
}

py::object toPython( const GenericValue& value ) {
    py::object out = py::none();
    if ( !value ) {
        return out;
    }
    if ( const bool* const flag = value.as< bool >() ) {
        return py::bool_( *flag );
    }
    if ( const String* const text = value.as< String >() ) {
        return textToPython( text->stdString() );
    }
    if ( tryNumber< Qel::U8 >( value, out ) || tryNumber< Qel::U16 >( value, out ) ||
         tryNumber< Qel::U32 >( value, out ) || tryNumber< Qel::U64 >( value, out ) ||
         tryNumber< Qel::S8 >( value, out ) || tryNumber< Qel::S16 >( value, out ) ||
         tryNumber< Qel::S32 >( value, out ) || tryNumber< Qel::S64 >( value, out ) ||
         tryNumber< double >( value, out ) || tryNumber< float >( value, out ) ) {
        return out;
    }
    if ( value.type()->hasGenericIfSupport() && !value.type()->isEnumType() ) {
        return py::cast( Value( value ) );
    }
    return py::module_::import( "qelkrell" )
        .attr( "evaluate" )( textToPython( value.strep().stdString() ) );
}

GenericValue fromPython( const py::handle& object, const Ptr< QelType >& type ) {
    if ( py::isinstance< Value >( object ) ) {
        return object.cast< const Value& >().generic(); // of another type: refused where it is used
    }
    if ( !type || !type->ops().parse ) {
        throw py::type_error( "a value of type " +
                              ( type ? type->fullName().stdString() : std::string( "none" ) ) +
                              " cannot be made of a Python object" );
    }
    const String text( Speller().text( object, type ) );
    auto at = text.begin();
    GenericValue value = type->ops().parse( at, text.end() );
    Qel::refuseJunk( text, at );
    return value;
}

namespace {

// By its name, else by what it is: "Qel::Seconds" is a double.
Ptr< QelType > typeOfArgument( const Qel::QelAttr::Argument& argument ) {
    Ptr< QelType > type = QelType::typeNode( argument.typeName );
    if ( !type && argument.info ) {
        for ( const String& name : QelType::typeNames() ) {
            const Ptr< QelType > one = QelType::typeNode( name );
            if ( one && one->ops().info && *one->ops().info == *argument.info ) {
                type = one;
            }
        }
    }
    return type;
}

} // namespace

Qel::GenericArguments argumentsFrom( const QelType& type,
                                     const std::string& operation,
                                     const py::kwargs& arguments ) {
    Qel::GenericArguments result;
    const Qel::QelAttr* const attr = type.attr( String( operation ) );
    for ( const auto& [ key, value ] : arguments ) {
        const String name( textFromPython( key ) );
        Ptr< QelType > wanted;
        for ( const auto& argument :
              attr ? attr->arguments : std::vector< Qel::QelAttr::Argument >() ) {
            if ( argument.name == name ) {
                wanted = typeOfArgument( argument );
            }
        }
        // One that it does not take is refused by the call, whatever it is.
        result.emplace_back( name, wanted ? fromPython( value, wanted ) : GenericValue() );
    }
    return result;
}

Value::Value( const std::string& type, const py::dict& attributes )
    : value_( fromPython( attributes, typeNamed( type ) ) ) {}

Ptr< Qel::GenericIf > Value::face() const {
    const Ptr< Qel::GenericIf > face = value_.type()->genericIf();
    face->instanceIs( value_.address() );
    return face;
}

bool Value::has( const std::string& name ) const {
    return value_.type()->attr( String( name ) ) != nullptr;
}

bool Value::isOperation( const std::string& name ) const {
    const Qel::QelAttr* const attr = value_.type()->attr( String( name ) );
    return attr && attr->isFunction();
}

py::object Value::attribute( const std::string& name ) const {
    return toPython( face()->attribute( String( name ) ) );
}

// As Python writes the attributes; numbers that it cannot write, as the text form does.
std::string Value::repr() const {
    std::string text = "Value('" + type() + "', ** {";
    const char* between = "'";
    for ( const auto& [ name, value ] : items() ) {
        text += between + py::cast< std::string >( name ) + "': ";
        text += PyFloat_Check( value.ptr() )
                    ? Qel::valueToStrep( value.cast< double >() ).stdString()
                    : py::cast< std::string >( py::repr( value ) );
        between = ", '";
    }
    return text + "})";
}

py::list Value::names() const {
    py::list names;
    for ( const Qel::QelAttr* attr : value_.type()->attributes() ) {
        if ( !attr->isFunction() && !attr->isCollection() ) {
            names.append( attr->name.stdString() );
        }
    }
    return names;
}

py::list Value::members() const {
    py::list members;
    for ( const Qel::QelAttr* attr : value_.type()->attributes() ) {
        members.append( attr->name.stdString() );
    }
    return members;
}

py::dict Value::items() const {
    py::dict items;
    for ( const py::handle& name : names() ) {
        items[ name ] = attribute( py::cast< std::string >( name ) );
    }
    return items;
}

// Handles change what they refer to, not themselves; other values are copies, and stay as they are.
py::object Value::call( const std::string& operation, const py::kwargs& arguments ) const {
    const Ptr< Qel::GenericIf > face = value_.type()->genericIf();
    const bool isHandle = value_.type()->fullName() == "QelKrell::CollectionControl";
    if ( isHandle ) {
        face->instanceIs( const_cast< void* >( value_.address() ) );
    } else {
        face->instanceIs( value_.address() );
    }
    return toPython(
        face->call( String( operation ), argumentsFrom( *value_.type(), operation, arguments ) ) );
}

} // namespace QelKrellPython
