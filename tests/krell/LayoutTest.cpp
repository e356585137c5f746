// How a layout tells people what another one has otherwise.

#include <Krell/Layout>

#include <gtest/gtest.h>

namespace {

using Krell::Layout;

Layout layoutOfText( const std::string& text ) {
    Layout layout;
    layout.entityType = "Power::Plant";
    layout.valueType = "Power::Reading";
    layout.keySize = 4;
    layout.valueSize = 16;
    layout.text = text;
    return layout;
}

std::string differences( const std::string& there, const std::string& here ) {
    return layoutOfText( here ).differences( layoutOfText( there ) );
}

constexpr const char* first = "key{sensor:U32@0} value{celsius:double@0,takenAt:U64@8}";

TEST( LayoutTest, EqualOnesDifferInNothing ) { EXPECT_EQ( differences( first, first ), "" ); }

TEST( LayoutTest, AnAttributesOtherTypeOrPlaceIsNamed ) {
    EXPECT_EQ( differences( first, "key{sensor:U32@0} value{celsius:float@0,takenAt:U64@8}" ),
               "value celsius: double@0 there, float@0 here" );
    EXPECT_EQ( differences( first, "key{sensor:U64@0} value{takenAt:U64@0,celsius:double@8}" ),
               "key sensor: U32@0 there, U64@0 here; value celsius: double@0 there, double@8 here; "
               "value takenAt: U64@8 there, U64@0 here" );
}

TEST( LayoutTest, AttributesOfOneSideAreNamed ) {
    EXPECT_EQ( differences( first, "key{sensor:U32@0} value{celsius:double@0}" ),
               "value takenAt: U64@8 there, absent here" );
    EXPECT_EQ( differences( "key{sensor:U32@0} value{}", first ),
               "value celsius: absent there, double@0 here; value takenAt: absent there, U64@8 "
               "here" );
    EXPECT_EQ( differences( "key{id.a:U32@0,id.b:U32@4} value{}", "key{id.a:U32@0} value{}" ),
               "key id.b: U32@4 there, absent here" );
}

TEST( LayoutTest, NamesOfTypesAreCompared ) {
    Layout other = layoutOfText( first );
    other.entityType = "Power::Station";
    other.valueType = "Power::Sample";
    EXPECT_EQ( layoutOfText( first ).differences( other ),
               "entity type: Power::Station there, Power::Plant here; value type: Power::Sample "
               "there, Power::Reading here" );
}

TEST( LayoutTest, MostAreNamedAndTheOthersCounted ) {
    std::string many = "key{k:U8@0} value{";
    for ( int i = 0; i < 30; ++i ) {
        many += ( i ? ",a" : "a" ) + std::to_string( i ) + ":U8@" + std::to_string( i );
    }
    const std::string text = differences( many + "}", "key{k:U8@0} value{}" );
    EXPECT_NE( text.find( "value a19: U8@19 there" ), std::string::npos );
    EXPECT_EQ( text.find( "value a20:" ), std::string::npos );
    EXPECT_TRUE( text.ends_with( "; and 10 more" ) ) << text;
}

// The stored text is whatever somebody wrote there.
TEST( LayoutTest, TextThatIsNoneIsLeftOut ) {
    const std::string whole = first;
    for ( std::size_t n = 0; n <= whole.size(); ++n ) {
        differences( whole.substr( 0, n ), first );
        differences( whole.substr( n ), first );
    }
    for ( const char* text : { "", "key{", "key{} value{", "key{}} value{}",
                               "key{,,:,a} value{::@}", "} value{key{", "key{a} value{b}" } ) {
        EXPECT_NE( differences( text, first ), "" ) << text;
    }
}

} // namespace
