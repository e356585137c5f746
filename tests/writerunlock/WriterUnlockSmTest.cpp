// The writer-unlock state machine as an entity.

#include "writerunlock/Watching.h"

#include <filesystem>

#include <Krell/Exception>
#include <Qel/Exception>
#include <Qel/GenericIf>
#include <Qel/TypeOf>

namespace {

using QelKrellTest::Coverage;
using QelKrellTest::Message;
using QelKrellTest::Tracing;
using testing::ElementsAre;
using testing::IsEmpty;

Message message( const std::string& text ) {
    return { "KrellWriterUnlock", "src-includes/QelKrell/Debug", 43, "dump", 5, text };
}

class Reactor : public QelKrell::WriterUnlockSm::Notifiee {
public:
    explicit Reactor( std::vector< std::string >& log ) : log_( log ) {}
    void onIsNondestructing() override { log_.push_back( "isNondestructing" ); }
    void onHelper() override { log_.push_back( "helper" ); }
    void onConnected() override { log_.push_back( "connected" ); }
    void onInitialized() override { log_.push_back( "initialized" ); }

private:
    std::vector< std::string >& log_;
};

class WriterUnlockSm : public QelKrellTest::Watching {
protected:
    Qel::Ptr< Reactor > reactor() {
        Qel::Ptr< Reactor > made = new Reactor( log );
        made->notifierIs( sm );
        made->isRegisteredNotifieeIs( true );
        return made;
    }
    // The messages that are not the root path's own.
    std::vector< Message > taken() {
        std::vector< Message > messages = tracing.taken();
        std::erase_if( messages,
                       []( const Message& m ) { return m.text.starts_with( "RootPath::" ); } );
        return messages;
    }
    std::vector< std::string > log;
};

TEST_F( WriterUnlockSm, IsMadeInitialisedAndNotConnected ) {
    EXPECT_EQ( sm->name(), Qel::Name( directory ) );
    EXPECT_EQ( sm->entityPath(), Qel::Name( directory ) );
    EXPECT_EQ( sm->instanceName(), "reading" );
    EXPECT_EQ( sm->writerUnlock(), counter );
    EXPECT_EQ( counter->references(), 2u );
    EXPECT_TRUE( sm->initialized() );
    EXPECT_FALSE( sm->connected() );
    EXPECT_TRUE( sm->helper() );
    EXPECT_TRUE( sm->notifiees().empty() );
    EXPECT_EQ( sm->references(), 1u );
    EXPECT_FALSE( std::filesystem::exists( directory ) ) << "the directory is not created";
}

TEST_F( WriterUnlockSm, ReleasesItsCounter ) {
    sm = nullptr;
    EXPECT_EQ( counter->references(), 1u );
}

TEST_F( WriterUnlockSm, MessagesOfALife ) {
    tracing.settingsAre( "KrellWriterUnlock/5" );
    sm = QelKrell::writerUnlockSmFactory( directory, "reading", counter );
    EXPECT_THAT( taken(),
                 ElementsAre( message( "QelKrell::WriterUnlockSm::handleInitialized() for name= " +
                                       directory + ", instanceName=reading" ),
                              message( "QelKrell::WriterUnlockSm::~WriterUnlockSm()" ) ) );
    sm->connectedIs( true );
    EXPECT_TRUE( sm->connected() );
    sm->connectedIs( false );
    EXPECT_FALSE( sm->connected() );
    EXPECT_THAT( taken(),
                 ElementsAre( message( "QelKrell::WriterUnlockSm::connectedIs( 1 ) invoked" ),
                              message( "QelKrell::WriterUnlockSm::connectedIs( 0 ) invoked" ) ) );
    sm->helper()->handleUnlocked();
    sm->connectedIs( true );
    taken();
    sm->helper()->handleUnlocked();
    sm = nullptr;
    EXPECT_THAT(
        taken(),
        ElementsAre( message( "WriterUnlockHelper::handleUnlocked() for instanceName=reading, "
                              "connected=1" ),
                     message( "QelKrell::WriterUnlockSm::~WriterUnlockSm()" ) ) );
}

TEST_F( WriterUnlockSm, AnEmptyInstanceNameIsNone ) {
    tracing.settingsAre( "KrellWriterUnlock/5" );
    sm = QelKrell::writerUnlockSmFactory( directory, "", counter );
    EXPECT_EQ( sm->instanceName(), "" );
    EXPECT_EQ( taken().at( 0 ).text, "QelKrell::WriterUnlockSm::handleInitialized() for name= " +
                                         directory + ", instanceName=" );
    sm->helper()->handleUnlocked();
    EXPECT_EQ( taken().back().text,
               "WriterUnlockHelper::handleUnlocked() for instanceName=None, connected=0" );
}

TEST_F( WriterUnlockSm, NothingIsTracedBelowTheLevelNorForTheCoverageStream ) {
    tracing.settingsAre( "KrellWriterUnlock/0-4+6-9" );
    const Coverage coverage;
    sm->helper()->handleUnlocked();
    sm = QelKrell::writerUnlockSmFactory( directory, "", counter );
    EXPECT_THAT( tracing.taken(), IsEmpty() );
    EXPECT_EQ( coverage.text(), "" );
}

TEST_F( WriterUnlockSm, UnlocksCountWhileConnectedOnly ) {
    sm->helper()->handleUnlocked();
    EXPECT_EQ( counter->count(), 0u );
    sm->connectedIs( true );
    sm->helper()->handleUnlocked();
    sm->helper()->handleUnlocked();
    EXPECT_EQ( counter->count(), 2u );
    sm->connectedIs( false );
    sm->helper()->handleUnlocked();
    EXPECT_EQ( counter->count(), 2u );
}

TEST_F( WriterUnlockSm, TwoMayShareOneCounter ) {
    const auto other = QelKrell::writerUnlockSmFactory( scratch.path( "other" ), "", counter );
    sm->connectedIs( true );
    other->connectedIs( true );
    sm->helper()->handleUnlocked();
    other->helper()->handleUnlocked();
    EXPECT_EQ( counter->count(), 2u );
}

TEST_F( WriterUnlockSm, DisconnectingAFreshOneIsNoError ) {
    sm->connectedIs( false );
    EXPECT_FALSE( sm->connected() );
}

TEST_F( WriterUnlockSm, CanGoWhileConnected ) {
    sm->connectedIs( true );
    sm = nullptr;
    tick();
    EXPECT_EQ( counter->count(), 0u );
}

TEST_F( WriterUnlockSm, CanGoInsideTheNotificationOfItsCounter ) {
    const auto reactor = onCount( [ this ] { sm = nullptr; } );
    sm->connectedIs( true );
    sm->helper()->handleUnlocked();
    EXPECT_FALSE( sm );
    EXPECT_EQ( counter->count(), 1u );
    EXPECT_EQ( counter->references(), 1u );
}

TEST_F( WriterUnlockSm, TellsOfItsHelperAndNothingElse ) {
    const auto r = reactor();
    sm->connectedIs( true );
    sm->connectedIs( false );
    sm->helper()->handleUnlocked();
    EXPECT_THAT( log, IsEmpty() );
    sm->handleDestruction();
    EXPECT_EQ( sm->helper(), nullptr );
    EXPECT_THAT( log, ElementsAre( "helper" ) );
    sm->handleInitialized();
    EXPECT_TRUE( sm->helper() );
    EXPECT_THAT( log, ElementsAre( "helper", "helper" ) );
    sm = nullptr;
    EXPECT_THAT( log, ElementsAre( "helper", "helper", "helper" ) );
    EXPECT_EQ( r->notifier(), nullptr );
}

TEST_F( WriterUnlockSm, SettersNotifyChanges ) {
    const auto r = reactor();
    sm->initializedIs( true );
    EXPECT_THAT( log, IsEmpty() );
    sm->initializedIs( false );
    sm->initializedIs( true );
    sm->isNondestructingIs( true );
    sm->isNondestructingIs( true );
    sm->zeroReferencesIs( true );
    EXPECT_THAT(
        log, ElementsAre( "initialized", "initialized", "isNondestructing", "isNondestructing" ) );
}

TEST_F( WriterUnlockSm, ConnectingWithoutAHelperIsRefused ) {
    sm->handleDestruction();
    EXPECT_THROW( sm->connectedIs( true ), Qel::InternalException );
    EXPECT_TRUE( sm->connected() ) << "stored before";
}

TEST_F( WriterUnlockSm, InitialisingAnewGoesOnWatching ) {
    sm->connectedIs( true );
    QelKrellTest::Writer writer( directory );
    sm->handleInitialized();
    tick();
    writer.kill();
    turn();
    EXPECT_EQ( counter->count(), 1u );
}

TEST_F( WriterUnlockSm, ARootPathThatCannotBePassesTheException ) {
    EXPECT_THROW( QelKrell::writerUnlockSmFactory( "a/../b", "", counter ),
                  Krell::InvalidInitializeException );
    EXPECT_EQ( counter->references(), 2u );
}

TEST_F( WriterUnlockSm, AFailedConnectStaysStoredAndCanBeRepeated ) {
    std::filesystem::create_directory( scratch.path( "elsewhere" ) );
    std::filesystem::create_directory_symlink( scratch.path( "elsewhere" ), directory );
    EXPECT_THROW( sm->connectedIs( true ), Krell::Exception );
    EXPECT_TRUE( sm->connected() );
    std::filesystem::remove( directory );
    sm->connectedIs( true );
    QelKrellTest::Writer writer( directory );
    tick();
    writer.kill();
    turn();
    EXPECT_EQ( counter->count(), 1u );
}

TEST_F( WriterUnlockSm, IsATypeThatOnlyItsFactoryMakes ) {
    const auto type = Qel::QelType::typeNode( "QelKrell::WriterUnlockSm" );
    ASSERT_TRUE( type );
    EXPECT_EQ( type, sm->fwkType() );
    EXPECT_EQ( type, QelKrell::WriterUnlockSm::_fwkType() );
    EXPECT_FALSE( type->isEntity() );
    EXPECT_TRUE( type->hasGenericIfSupport() );
    Qel::traceSettingsIs( "-QelEntity" );
    EXPECT_FALSE( Qel::Entity::newEntity( "QelKrell::WriterUnlockSm", "x" ) );
    std::vector< std::string > names;
    for ( Qel::U32 id = 258; id <= 266; ++id ) {
        names.push_back( type->attrName( id ).stdString() );
    }
    EXPECT_THAT( names, ElementsAre( "entityPath", "instanceName", "writerUnlock", "helper",
                                     "connected", "handleDestruction", "initialized",
                                     "handleInitialized", "unknown" ) );
    EXPECT_EQ( type->attr( "entityPath" )->typeName, "Qel::Name" );
    EXPECT_EQ( type->attr( "writerUnlock" )->typeName, "QelKrell::WriterUnlock::Ptr" );
    EXPECT_EQ( type->attr( "helper" )->typeName, "QelKrell::WriterUnlockHelper*" );
    EXPECT_EQ( type->attrName( type->attr( "name" )->id ), "name" );
}

TEST_F( WriterUnlockSm, IsSwitchedByName ) {
    const auto generic = sm->genericIf();
    generic->attributeIs( "connected", Qel::genericValue( true ) );
    EXPECT_TRUE( sm->connected() );
    EXPECT_EQ( generic->attribute( 262 ).strep(), "True" );
    EXPECT_EQ( *generic->attribute( "entityPath" ).as< Qel::Name >(), sm->name() );
    EXPECT_EQ( *generic->attribute( "writerUnlock" ).as< QelKrell::WriterUnlock::Ptr >(), counter );
    EXPECT_EQ( *generic->attribute( "helper" ).as< QelKrell::WriterUnlockHelper* >(),
               sm->helper() );
    EXPECT_THROW(
        std::as_const( *sm ).genericIf()->attributeIs( "connected", Qel::genericValue( false ) ),
        Qel::ConstException );
    EXPECT_TRUE( sm->connected() );
}

// Programming errors.

std::string whole( const std::string& literal ) {
    std::string pattern = "^";
    for ( const char c : literal ) {
        if ( std::string( "\\^$.[]|()?*+{}" ).find( c ) != std::string::npos ) {
            pattern += '\\';
        }
        pattern += c;
    }
    return pattern + "\n$";
}

using WriterUnlockSmDeathTest = WriterUnlockSm;

TEST_F( WriterUnlockSmDeathTest, NeedsACounter ) {
    EXPECT_DEATH(
        QelKrell::writerUnlockSmFactory( directory, "", nullptr ),
        whole( "src-includes/QelKrell/WriterUnlock:16: void "
               "QelKrell::WriterUnlockSm::handleInitialized(): Assertion `writerUnlock_ != "
               "__null' failed." ) );
}

TEST_F( WriterUnlockSmDeathTest, NeedsToBeInitialised ) {
    sm->initializedIs( false );
    EXPECT_DEATH(
        sm->connectedIs( true ),
        whole( "src-includes/QelKrell/WriterUnlock:47: void "
               "QelKrell::WriterUnlockSm::connectedIs(bool): Assertion `initialized_ && "
               "\"QelKrell::WriterUnlockSm::connectedIs() failed: not initialized\"' failed." ) );
    EXPECT_DEATH( sm->connectedIs( false ), "not initialized" );
    EXPECT_FALSE( sm->connected() );
}

} // namespace
