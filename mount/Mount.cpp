#include <QelKrell/KrellMount>

#include <Norvo/EntityManager>
#include <Qel/Assert>
#include <QelKrell/RootPath>

#include "mount/MountTrace.h"
#include "values/ValueType.h"

namespace QelKrell {

constexpr auto describe( const Mount* ) {
    return Qel::valueType< Mount >(
        "QelKrell::Mount", Qel::attribute( "em", &Mount::em_ ),
        Qel::attribute( "krellDir", &Mount::krellDir_ ),
        Qel::attribute( "rootPath", &Mount::rootPath_ ),
        Qel::attribute( "initialized", &Mount::initialized_, Qel::readOnly ),
        Qel::operation( "handleInitialized", &Mount::handleInitialized ),
        Qel::operation( "doMount", &Mount::doMount, { "entityPath", "entityType", "mountInfo" } ),
        Qel::operation( "doUnmount", &Mount::doUnmount, { "entityPath" } ),
        Qel::operation( "doUnmountAll", &Mount::doUnmountAll ),
        Qel::operation( "getEntity", &Mount::getEntity, { "entityPath" } ),
        Qel::operation( "getQelEntity", &Mount::getQelEntity, { "entityPath" } ),
        Qel::operation( "find", &Mount::find, { "path" } ),
        Qel::operation( "cleanup", &Mount::cleanup, { "entityPath" } ) );
}

QELKRELL_VALUE_TYPE( Mount )

namespace {

const Qel::Unit< CollectionInfo, MountInfo, KrellEntities, Mount > unit( "mount" );

const Qel::Name krellDirName( "Krell" );

constexpr const char* source = "src-includes/QelKrell/KrellMount";
constexpr Qel::SourcePosition initializedPosition { source, 71,
                                                    "void QelKrell::Mount::handleInitialized()" };
constexpr Qel::SourcePosition getEntityPosition {
    source, 118, "Qel::Entity::Ptr QelKrell::Mount::getQelEntity(Qel::String) const"
};

} // namespace

Krell::Platform::DebugHandler& mountHandler() {
    static auto* const handler = Krell::Platform::getDebugHandler( "KrellMount" );
    return *handler;
}

Mount::Mount() = default;
Mount::Mount( const Qel::Ptr< const Norvo::EntityManager >& em,
              const Qel::Dir::Ptr& krellDir,
              const Qel::String8& rootPath,
              bool initialized )
    : em_( em ), krellDir_( krellDir ), rootPath_( rootPath ), initialized_( initialized ) {}
Mount::~Mount() = default;
Mount::Mount( const Mount& ) = default;
Mount& Mount::operator=( const Mount& ) = default;

void Mount::emIs( const Qel::Ptr< const Norvo::EntityManager >& em ) { em_ = em; }

void Mount::handleInitialized() {
    traceMount( operationLevel,
                []( std::ostream& text ) { text << "Mount::handleInitialized()"; } );
    const Qel::Dir::Ptr sysDirPtr = getDir( em_->name(), Qel::Dir::globalDir() );
    Qel::assertThat( bool( sysDirPtr ), "sysDirPtr && \"error accessing sysname directory\"",
                     initializedPosition );
    krellDir_ = sysDirPtr->subdirIs( krellDirName );
    rootPath_ = rootPathFactory( "", false )->fullPath( "" );
    initialized_ = true;
    traceMount( operationLevel, [ & ]( std::ostream& text ) {
        text << "Mount::handleInitialized() krellDir: " << Qel::Entity::Ptr( krellDir_ )
             << " rootPath: " << rootPath_;
    } );
}

Qel::Entity::Ptr Mount::getEntity( Qel::String8 entityPath ) const {
    return getQelEntity( std::move( entityPath ) );
}

Qel::Entity::Ptr Mount::getQelEntity( Qel::String8 entityPath ) const {
    traceMount( operationLevel, [ & ]( std::ostream& text ) {
        text << "Mount::getEntity() path: " << entityPath;
    } );
    Qel::assertThat( !entityPath.empty(), "!entityPath.empty() && \"path is empty\"",
                     getEntityPosition );
    const std::size_t slash = entityPath.rfind( '/' );
    const bool nested = slash != Qel::String8::npos;
    const Qel::Dir::Ptr dir =
        nested ? getDir( entityPath.substr( 0, slash ), krellDir_ ) : krellDir_;
    Qel::Entity::Ptr entity;
    if ( dir ) {
        const Qel::String8 name = nested ? entityPath.substr( slash + 1 ) : entityPath;
        traceMount( stepLevel, [ & ]( std::ostream& text ) {
            text << "Mount::getEntity() getting entity '" << name << "'";
        } );
        entity = dir->entityRef( name );
    }
    traceMount( operationLevel, [ & ]( std::ostream& text ) {
        if ( entity ) {
            text << "Mount::getEntity() successfully retrieved " << entity;
        } else {
            text << "Mount::getEntity() unable to retrieve entity '" << entityPath << "'";
        }
    } );
    return entity;
}

Qel::Dir::Ptr getDir( const Qel::String8& path, const Qel::Dir::Ptr& startDir ) {
    Qel::Dir::Ptr dir = startDir;
    std::size_t start = 0;
    for ( std::size_t slash = 0; dir; start = slash + 1 ) {
        if ( slash == Qel::String8::npos ) {
            traceMount( stepLevel, [ & ]( std::ostream& text ) {
                text << "getDir() retrieved directory '" << dir->fullName() << "'";
            } );
            return dir;
        }
        slash = path.find( '/', start );
        const Qel::String8 component =
            path.substr( start, slash == Qel::String8::npos ? slash : slash - start );
        traceMount( stepLevel, [ & ]( std::ostream& text ) {
            text << "getDir() entering directory '" << component << "'";
        } );
        dir = dir->subdir( component );
    }
    traceMount( stepLevel, [ & ]( std::ostream& text ) {
        text << "getDir() unable to retrieve '" << path << "'";
    } );
    return nullptr;
}

} // namespace QelKrell
