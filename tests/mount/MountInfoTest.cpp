// Mount descriptions: values, the map of collections, text form, generic access.

#include <Qel/Text>
#include <QelKrell/Generic>
#include <QelKrell/MountInfo>

#include <random>
#include <set>
#include <sstream>

#include <gmock/gmock.h>

#include "Raised.h"

namespace {

using Qel::genericValue;
using Qel::RangeException;
using Qel::strepToValue;
using Qel::String;
using QelKrell::CollectionInfo;
using QelKrell::MountInfo;
using QelKrellTest::raised;

MountInfo twoCollections() {
    MountInfo info( QelKrell::reader, true );
    info.collectionInfoIs( { "reading", 100 } );
    info.collectionInfoIs( { "limit", 7 } );
    return info;
}

std::set< std::string > namesIn( const MountInfo& info ) {
    std::set< std::string > names;
    for ( auto it = info.collectionInfoIterator(); it.next(); ) {
        EXPECT_TRUE( names.insert( it->collectionInfo().name().stdString() ).second );
        EXPECT_EQ( it->key(), it->collectionInfo().name() );
    }
    return names;
}

// --- CollectionInfo

TEST( CollectionInfo, HasItsDefaults ) {
    const CollectionInfo info;
    EXPECT_EQ( info.name(), "" );
    EXPECT_EQ( info.size(), 0u );
    EXPECT_TRUE( !info );
    EXPECT_FALSE( !CollectionInfo( "x", 0 ) );
    EXPECT_FALSE( !CollectionInfo( "", 1 ) );
}

TEST( CollectionInfo, IsEqualByNameAndSize ) {
    const CollectionInfo info( "x", 3 );
    EXPECT_EQ( info, CollectionInfo( "x", 3 ) );
    EXPECT_NE( info, CollectionInfo( "x", 4 ) );
    EXPECT_NE( info, CollectionInfo( "X", 3 ) );
    CollectionInfo other;
    other.nameIs( "x" );
    other.sizeIs( 3 );
    EXPECT_EQ( info, other );
}

TEST( CollectionInfo, PrintsAndReadsBack ) {
    const CollectionInfo info( "it's", 4294967295U );
    const String text =
        "Value('QelKrell::CollectionInfo', ** {'name': 'it\\'s', 'size': 4294967295})";
    EXPECT_EQ( valueToStrep( info ), text );
    EXPECT_EQ( strepToValue< CollectionInfo >( text ), info );
    std::ostringstream os;
    os << info;
    EXPECT_EQ( String( os.str() ), text );
    EXPECT_EQ( strepToValue< CollectionInfo >(
                   " Value ( 'QelKrell::CollectionInfo' , ** { 'size' : 2 , 'name' : 'a' } ) " ),
               CollectionInfo( "a", 2 ) );
    EXPECT_TRUE( !strepToValue< CollectionInfo >( "Value('QelKrell::CollectionInfo', ** {})" ) );
}

TEST( CollectionInfo, KeepsTheLow32BitsOfASize ) {
    const std::pair< const char*, Qel::U32 > table[] = {
        { "4294967297", 1 },           { "4294967296", 0 },
        { "-1", 4294967295U },         { "9223372036854775807", ~0U },
        { "-9223372036854775808", 0 }, { "4294967295", ~0U },
    };
    for ( const auto& [ size, stored ] : table ) {
        const String text =
            "Value('QelKrell::CollectionInfo', ** {'size': " + String( size ) + "})";
        EXPECT_EQ( strepToValue< CollectionInfo >( text ).size(), stored ) << size;
    }
}

TEST( CollectionInfo, BadTextIsRefused ) {
    const std::pair< const char*, const char* > table[] = {
        { "Value('QelKrell::CollectionInfo', ** {'name': 'a'",
          "premature end of value type CollectionInfo" },
        { "Value('QelKrell::CollectionInfo', ** {'name': 'a",
          "premature end of value type CollectionInfo" },
        { "Value('QelKrell::CollectionInfo', ** {'mode': 1})",
          "CollectionInfo has no such attribute: mode" },
        { "Value('QelKrell::CollectionInfo', ** {'name': 1})",
          "expected a quoted string but found '1})' in attribute 'name'" },
        { "Value('QelKrell::CollectionInfo', ** {'size': 'a'})",
          "expected a number but found '\\'a\\'})' in attribute 'size'" },
        { "Value('QelKrell::CollectionInfo', ** {'size': 9223372036854775808})",
          "9223372036854775808 is out of range for S64 in attribute 'size'" },
        { "Value('QelKrell::CollectionInfo', ** {})x",
          "junk at column 40 deserializing Value('QelKrell::CollectionInfo', ** {})x" },
        { "Value('QelKrell::MountInfo', ** {})",
          "expected ''QelKrell::CollectionInfo'' but found '\\'QelKrell::MountInfo...'" },
    };
    for ( const auto& [ text, error ] : table ) {
        EXPECT_EQ(
            raised< RangeException >( [ text = text ] { strepToValue< CollectionInfo >( text ); } ),
            error );
    }
}

// --- MountInfo

TEST( MountInfo, HasItsDefaults ) {
    const MountInfo info;
    EXPECT_EQ( info.mode(), QelKrell::writer );
    EXPECT_FALSE( info.cleanup() );
    EXPECT_TRUE( info.collectionInfo().empty() );
    EXPECT_TRUE( !info );
    EXPECT_FALSE( !MountInfo( QelKrell::shadow ) );
    EXPECT_FALSE( !MountInfo( QelKrell::writer, true ) );
    EXPECT_FALSE( !twoCollections() );
}

TEST( MountInfo, IsMadeFromItsAttributesInOrder ) {
    const std::vector< CollectionInfo > list { { "a", 1 }, { "b", 2 }, { "a", 3 } };
    const MountInfo info( QelKrell::keyshadow, true, list );
    EXPECT_EQ( info.mode(), QelKrell::keyshadow );
    EXPECT_TRUE( info.cleanup() );
    EXPECT_EQ( namesIn( info ), ( std::set< std::string > { "a", "b" } ) );
    EXPECT_EQ( info.collectionInfo( "a" ).size(), 3u );
}

TEST( MountInfo, AnAbsentCollectionReadsAsTheDefault ) {
    const MountInfo info = twoCollections();
    EXPECT_EQ( info.collectionInfo( "reading" ), CollectionInfo( "reading", 100 ) );
    EXPECT_EQ( info.collectionInfo( "x" ).name(), "" );
    EXPECT_EQ( info.collectionInfo( "x" ).size(), 0u );
    EXPECT_TRUE( !info.collectionInfo( "" ) );
}

TEST( MountInfo, StoringUnderAPresentNameReplacesInPlace ) {
    MountInfo info = twoCollections();
    const auto node = info.collectionInfo().find( "reading" );
    info.collectionInfoIs( { "reading", 5 } );
    EXPECT_EQ( info.collectionInfo().size(), 2u );
    EXPECT_EQ( info.collectionInfo( "reading" ).size(), 5u );
    EXPECT_EQ( info.collectionInfo().find( "reading" ), node );
    EXPECT_EQ( node->collectionInfo().size(), 5u );
}

TEST( MountInfo, NewCollectionInfoLinksANode ) {
    MountInfo info;
    const auto node = info.newCollectionInfo( { "x", 9 } );
    EXPECT_EQ( node->key(), "x" );
    EXPECT_TRUE( node->linked() );
    EXPECT_EQ( info.collectionInfo().find( "x" ), node );
    EXPECT_EQ( info.collectionInfo( "x" ), CollectionInfo( "x", 9 ) );
}

TEST( MountInfo, CollectionsAreRemovedByNameOrAll ) {
    MountInfo info = twoCollections();
    info.collectionInfoDel( "absent" );
    EXPECT_EQ( info.collectionInfo().size(), 2u );
    info.collectionInfoDel( "limit" );
    EXPECT_EQ( namesIn( info ), std::set< std::string > { "reading" } );
    info.collectionInfoDelAll();
    EXPECT_TRUE( info.collectionInfo().empty() );
    EXPECT_EQ( namesIn( info ), std::set< std::string > {} );
    info.collectionInfoIs( { "again", 1 } );
    EXPECT_EQ( info.collectionInfo().size(), 1u );
}

TEST( MountInfo, CopiesAreDeep ) {
    const MountInfo original = twoCollections();
    MountInfo copy( original );
    EXPECT_EQ( copy, original );
    copy.collectionInfoIs( { "reading", 1 } );
    copy.collectionInfoDel( "limit" );
    EXPECT_EQ( original, twoCollections() );
    EXPECT_NE( copy, original );
    copy = original;
    EXPECT_EQ( copy, original );
    EXPECT_NE( copy.collectionInfo().find( "limit" ), original.collectionInfo().find( "limit" ) );
    const MountInfo& self = copy;
    copy = self;
    EXPECT_EQ( copy, original );
}

TEST( MountInfo, IsEqualByModeCleanupAndEntries ) {
    const MountInfo info = twoCollections();
    MountInfo other = info;
    other.cleanupIs( false );
    EXPECT_NE( other, info );
    other = info;
    other.modeIs( QelKrell::writer );
    EXPECT_NE( other, info );
    other = info;
    other.collectionInfoIs( { "more", 0 } );
    EXPECT_NE( other, info );
    EXPECT_NE( info, other );
    other = info;
    other.collectionInfoDel( "limit" );
    other.collectionInfoIs( { "other", 7 } );
    EXPECT_NE( other, info );
}

TEST( MountInfo, TheOrderOfAddingDoesNotCount ) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE( "seed " + std::to_string( seed ) );
    std::mt19937 random( seed );
    std::vector< CollectionInfo > list;
    for ( unsigned i = 0; i < 100; ++i ) {
        list.emplace_back( "collection" + String( std::to_string( i ) ), i );
    }
    const MountInfo first( QelKrell::writer, false, list );
    EXPECT_EQ( namesIn( first ).size(), 100u );
    for ( int i = 0; i < 10; ++i ) {
        std::shuffle( list.begin(), list.end(), random );
        EXPECT_EQ( MountInfo( QelKrell::writer, false, list ), first );
    }
}

TEST( MountInfo, NeverPrintsItsCollections ) {
    const String text = "Value('QelKrell::MountInfo', ** {'mode': 'reader', 'cleanup': True, "
                        "'collectionInfo': None})";
    EXPECT_EQ( valueToStrep( twoCollections() ), text );
    EXPECT_EQ( valueToStrep( MountInfo( QelKrell::reader, true ) ), text );
    EXPECT_EQ( valueToStrep( MountInfo() ), "Value('QelKrell::MountInfo', ** {'mode': 'writer', "
                                            "'cleanup': False, 'collectionInfo': None})" );
    std::ostringstream os;
    os << twoCollections();
    EXPECT_EQ( String( os.str() ), text );
    EXPECT_NE( strepToValue< MountInfo >( text ), twoCollections() );
    EXPECT_EQ( strepToValue< MountInfo >( text ), MountInfo( QelKrell::reader, true ) );
    EXPECT_EQ( valueToStrep( MountInfo( QelKrell::QelKrellType( 9 ) ) ),
               "Value('QelKrell::MountInfo', ** {'mode': 'QelKrellType(9)', 'cleanup': False, "
               "'collectionInfo': None})" );
}

TEST( MountInfo, ReadsPairsInAnyOrder ) {
    EXPECT_EQ(
        strepToValue< MountInfo >( " Value ( 'QelKrell::MountInfo' , ** { 'collectionInfo' : "
                                   "None , 'cleanup' : True , 'mode' : 'shadow' } ) " ),
        MountInfo( QelKrell::shadow, true ) );
    EXPECT_EQ( strepToValue< MountInfo >( "Value('QelKrell::MountInfo', ** {})" ), MountInfo() );
    EXPECT_EQ( strepToValue< MountInfo >(
                   "Value('QelKrell::MountInfo', ** {'mode': 'reader', 'mode': 'shadow'})" ),
               MountInfo( QelKrell::shadow ) );
}

TEST( MountInfo, BadTextIsRefused ) {
    const std::pair< const char*, const char* > table[] = {
        { "Value('QelKrell::MountInfo', ** {'mode': 'reader'",
          "premature end of value type MountInfo" },
        { "Value('QelKrell::MountInfo', ** {'collectionInfo': No",
          "premature end of value type MountInfo" },
        { "Value('QelKrell::MountInfo', ** {'size': 1})", "MountInfo has no such attribute: size" },
        { "Value('QelKrell::MountInfo', ** {'mode': 'Reader'})",
          "QelKrellType: 'Reader' in attribute 'mode'" },
        { "Value('QelKrell::MountInfo', ** {'mode': 'QelKrellType(9)'})",
          "QelKrellType: 'QelKrellType(9)' in attribute 'mode'" },
        { "Value('QelKrell::MountInfo', ** {'cleanup': 1})",
          "expected True or False but found '1})' in attribute 'cleanup'" },
        { "Value('QelKrell::MountInfo', ** {'collectionInfo': {}})",
          "expected 'None' but found '{}})' in attribute 'collectionInfo'" },
        { "Value('QelKrell::MountInfo', ** {}) .",
          "junk at column 36 deserializing Value('QelKrell::MountInfo', ** {}) ." },
    };
    for ( const auto& [ text, error ] : table ) {
        EXPECT_EQ(
            raised< RangeException >( [ text = text ] { strepToValue< MountInfo >( text ); } ),
            error );
    }
}

TEST( MountInfo, TextCutAnywhereIsRefused ) {
    for ( const String& whole :
          { valueToStrep( twoCollections() ), valueToStrep( CollectionInfo( "a", 1 ) ) } ) {
        const bool isInfo = whole.find( "MountInfo" ) != String::npos;
        for ( std::size_t n = 0; n < whole.size(); ++n ) {
            const String cut = whole.substr( 0, n );
            EXPECT_THROW( isInfo ? static_cast< void >( strepToValue< MountInfo >( cut ) )
                                 : static_cast< void >( strepToValue< CollectionInfo >( cut ) ),
                          RangeException )
                << cut;
        }
    }
}

// --- Generic access

TEST( MountInfo, IsReadAndWrittenByName ) {
    MountInfo info = twoCollections();
    MountInfo::GenericIf_ generic( info );
    EXPECT_EQ( generic.attribute( "mode" ).strep(), "'reader'" );
    EXPECT_EQ( generic.attribute( "cleanup" ).strep(), "True" );
    generic.attributeIs( "mode", genericValue( QelKrell::keyshadow ) );
    generic.attributeIs( "cleanup", genericValue( false ) );
    EXPECT_EQ( info.mode(), QelKrell::keyshadow );
    EXPECT_FALSE( info.cleanup() );
    EXPECT_EQ(
        *generic.attribute( "collectionInfo", genericValue( "limit" ) ).as< CollectionInfo >(),
        CollectionInfo( "limit", 7 ) );
    EXPECT_TRUE(
        !*generic.attribute( "collectionInfo", genericValue( "x" ) ).as< CollectionInfo >() );
    generic.attributeIs( "collectionInfo", genericValue( "limit" ),
                         genericValue( CollectionInfo( "limit", 8 ) ) );
    EXPECT_EQ( info.collectionInfo( "limit" ).size(), 8u );
    generic.attributeDel( "collectionInfo", genericValue( "limit" ) );
    const auto left = generic.attributeIndices( "collectionInfo" );
    ASSERT_EQ( left.size(), 1u );
    EXPECT_EQ( left[ 0 ].strep(), "'reading'" );
}

TEST( MountInfo, GenericRefusalsChangeNothing ) {
    MountInfo info = twoCollections();
    MountInfo::GenericIf_ generic( info );
    MountInfo::GenericIf_ constant( std::as_const( info ) );
    const auto entry = genericValue( CollectionInfo( "limit", 8 ) );
    EXPECT_EQ( raised< Qel::BadIndexException >( [ & ] {
                   generic.attributeIs( "collectionInfo", genericValue( "other" ), entry );
               } ),
               "bad index on attribute 'collectionInfo': the value's name is 'limit'" );
    EXPECT_EQ( raised< Qel::BadIndexException >( [ & ] { generic.attribute( "collectionInfo" ); } ),
               "bad index on attribute 'collectionInfo': it needs one" );
    EXPECT_EQ( raised< Qel::BadIndexException >(
                   [ & ] { generic.attribute( "mode", genericValue( "x" ) ); } ),
               "bad index on attribute 'mode': it takes none" );
    EXPECT_EQ( raised< Qel::TypeException >(
                   [ & ] { generic.attributeIs( "mode", genericValue( "reader" ) ); } ),
               "attribute 'mode' takes a QelKrell::QelKrellType, not a Qel::String8" );
    EXPECT_EQ( raised< Qel::TypeException >( [ & ] {
                   generic.attributeIs( "collectionInfo", genericValue( "limit" ),
                                        genericValue( 1U ) );
               } ),
               "attribute 'collectionInfo' takes a QelKrell::CollectionInfo, not a U32" );
    EXPECT_EQ( raised< Qel::UnknownAttributeException >( [ & ] { generic.attribute( "size" ); } ),
               "QelKrell::MountInfo has no attribute 'size'" );
    EXPECT_EQ( raised< Qel::OpNotSupportedException >( [ & ] { generic.call( "cleanup" ); } ),
               "attribute 'cleanup' is not an operation" );
    const char* constError = "attempting to modify a const instance";
    EXPECT_EQ( raised< Qel::ConstException >(
                   [ & ] { constant.attributeIs( "cleanup", genericValue( false ) ); } ),
               constError );
    EXPECT_EQ( raised< Qel::ConstException >(
                   [ & ] { constant.attributeDel( "collectionInfo", genericValue( "limit" ) ); } ),
               constError );
    EXPECT_EQ( raised< Qel::ConstException >( [ & ] {
                   constant.attributeIs( "collectionInfo", genericValue( "limit" ), entry );
               } ),
               constError );
    EXPECT_EQ( info, twoCollections() );
}

} // namespace
