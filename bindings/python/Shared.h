// Mounted entities and their collections, as Python holds them.

#pragma once

#include <Norvo/EntityManager>
#include <QelKrell/KrellMount>

#include "Convert.h"

namespace QelKrellPython {

class Entity;

// A collection of a mounted entity, which it keeps alive.
class Collection {
public:
    Collection( Qel::Ptr< Qel::Entity > entity, std::string name );

    const std::string& name() const noexcept { return name_; }
    py::object find( const py::handle& key ) const; // None when it is not there
    bool contains( const py::handle& key ) const;
    py::list keys() const;
    py::list values() const;
    std::size_t size() const;
    void put( const py::handle& key, const py::handle& value );
    bool del( const py::handle& key );
    Value control() const;
    // Calls `reaction` with each key that changes, while what is returned lives.
    Qel::Ptr< Qel::Counted > watch( py::function reaction ) const;
    std::string repr() const;

private:
    Qel::GenericValue key( const py::handle& key ) const;
    Qel::GenericValue at( const Qel::GenericValue& key ) const {
        return face_->attribute( Qel::String( name_ ), key );
    }

    Qel::Ptr< Qel::Entity > entity_;
    Qel::Ptr< Qel::GenericIf > face_;
    std::string name_;
};

class Entity {
public:
    explicit Entity( Qel::Ptr< Qel::Entity > entity )
        : entity_( std::move( entity ) ), face_( entity_->genericIf() ) {}

    std::string type() const { return entity_->fwkType()->fullName().stdString(); }
    std::string fullName() const { return entity_->fullName().stdString(); }
    py::object attribute( const std::string& name ) const;
    void attributeIs( const std::string& name, const py::handle& value );
    py::object call( const std::string& operation, const py::kwargs& arguments ) const;
    bool isOperation( const std::string& name ) const;
    py::list names() const;
    std::string repr() const;

private:
    const Qel::QelAttr* attr( const std::string& name ) const {
        return face_->type()->attr( Qel::String( name ) );
    }

    Qel::Ptr< Qel::Entity > entity_;
    Qel::Ptr< Qel::GenericIf > face_;
};

// The entities of one system, mounted by path.
class Site {
public:
    Site( const std::string& system, bool local );

    Entity mount( const std::string& path,
                  const std::string& type,
                  const std::string& role,
                  const py::dict& sizes,
                  bool cleanup );
    void unmount( const std::string& path );
    void unmountAll();
    // Path by path, below the given one, what has collection files.
    py::list find( const std::string& path );
    void cleanup( const std::string& path );
    std::string rootPath() const { return mount_.rootPath().stdString(); }

private:
    Qel::Ptr< const Norvo::EntityManager > manager_;
    QelKrell::Mount mount_;
};

} // namespace QelKrellPython
