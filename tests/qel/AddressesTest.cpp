// Addresses: their texts, their order, and their bytes in the fixed-width form.

#include <Qel/Addresses>

#include <algorithm>
#include <random>
#include <sstream>

#include <Qel/Wire>
#include <gmock/gmock.h>

namespace AddressTypes {

struct Neighbour {
    Qel::MacAddress mac;
    Qel::Ipv4Address v4;
    Qel::Ipv6Address v6;
};
constexpr auto describe( const Neighbour* ) {
    return Qel::valueType< Neighbour >(
        "AddressTypes::Neighbour", Qel::attribute( "mac", &Neighbour::mac ),
        Qel::attribute( "v4", &Neighbour::v4 ), Qel::attribute( "v6", &Neighbour::v6 ) );
}

} // namespace AddressTypes

namespace {

using AddressTypes::Neighbour;
using Qel::Ipv4Address;
using Qel::Ipv6Address;
using Qel::MacAddress;
using Qel::U8;

template < class A >
std::string refusal( std::string_view text ) {
    try {
        return "read as " + A( text ).text().stdString();
    } catch ( const Qel::RangeException& e ) {
        return e.what();
    }
}

TEST( AddressesTest, TextsAreReadAndWritten ) {
    EXPECT_EQ( Ipv4Address( "10.0.0.7" ).text(), "10.0.0.7" );
    EXPECT_EQ( Ipv4Address( "10.0.0.7" ).bytes(), ( Ipv4Address::Bytes { 10, 0, 0, 7 } ) );
    EXPECT_EQ( Ipv4Address().text(), "0.0.0.0" );
    EXPECT_EQ( Ipv4Address( "255.255.255.255" ).text(), "255.255.255.255" );
    EXPECT_EQ( Ipv6Address( "FE80:0:0:0:0:0:0:1" ).text(), "fe80::1" );
    EXPECT_EQ( Ipv6Address( "::ffff:10.0.0.7" ).text(), "::ffff:10.0.0.7" );
    EXPECT_EQ( Ipv6Address().text(), "::" );
    EXPECT_EQ( Ipv6Address( "1:2::ff" ).bytes(),
               ( Ipv6Address::Bytes { 0, 1, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff } ) );
    EXPECT_EQ( MacAddress( "00:1C:73:00:ca:fe" ).text(), "00:1c:73:00:ca:fe" );
    EXPECT_EQ( MacAddress( "00-1c-73-00-ca-fe" ), MacAddress( "00:1c:73:00:ca:fe" ) );
    EXPECT_EQ( MacAddress().text(), "00:00:00:00:00:00" );
    std::ostringstream out;
    out << Ipv4Address( "1.2.3.4" ) << " " << MacAddress( "01:23:45:67:89:ab" );
    EXPECT_EQ( out.str(), "1.2.3.4 01:23:45:67:89:ab" );
}

TEST( AddressesTest, OtherTextsAreRefusedWithTheText ) {
    for ( const char* text : { "", "10.0.0", "10.0.0.256", "10.0.0.7 ", "10.0.0.07x", "::1",
                               "1.2.3.4.5", "a.b.c.d", "1.2.3.-4" } ) {
        EXPECT_EQ( refusal< Ipv4Address >( text ),
                   "'" + std::string( text ) + "' is no IPv4 address" );
    }
    for ( const char* text : { "", ":", "1:2", "1::2::3", "10.0.0.7", "fe80::1%eth0", "::12345",
                               "1111:2222:3333:4444:5555:6666:7777:8888:9999:0000:1111" } ) {
        EXPECT_EQ( refusal< Ipv6Address >( text ),
                   "'" + std::string( text ) + "' is no IPv6 address" );
    }
    for ( const char* text :
          { "", "00:1c:73:00:ca", "00:1c:73:00:ca:fe:00", "00:1c:73:00:ca:fg", "001c7300cafe",
            "0:1c:73:00:ca:fe0", "00:1c-73:00:ca:fe", "00:1c:73:00:ca:fe " } ) {
        EXPECT_EQ( refusal< MacAddress >( text ),
                   "'" + std::string( text ) + "' is no Ethernet address" );
    }
    using namespace std::string_view_literals;
    EXPECT_EQ( refusal< Ipv4Address >( "10.0.0.7\0"sv ), "'10.0.0.7\\x00' is no IPv4 address" );
}

TEST( AddressesTest, EveryAddressReadsBackAsItIsWritten ) {
    std::mt19937_64 random( 20261122 );
    const auto check = [ & ]< class A >( A a ) {
        for ( int i = 0; i < 2000; ++i ) {
            for ( U8& byte : a.bytes() ) {
                byte = random() % 3 ? U8( random() ) : 0; // zeros are shortened
            }
            ASSERT_EQ( A( a.text() ), a ) << a;
            auto at = Qel::valueToStrep( a.text() );
            auto from = at.begin();
            ASSERT_EQ( Qel::TextOf< A >::parse( from, at.end() ), a );
            ASSERT_EQ( Qel::TextOf< A >::print( a ), at );
        }
    };
    check( Ipv4Address() );
    check( Ipv6Address() );
    check( MacAddress() );
}

TEST( AddressesTest, OrderIsThatOfTheNumbers ) {
    EXPECT_LT( Ipv4Address( "9.255.255.255" ), Ipv4Address( "10.0.0.0" ) );
    EXPECT_LT( Ipv4Address( "10.0.0.2" ), Ipv4Address( "10.0.0.10" ) );
    EXPECT_LT( Ipv6Address( "::ffff" ), Ipv6Address( "::1:0" ) );
    EXPECT_GT( MacAddress( "80:00:00:00:00:00" ), MacAddress( "7f:ff:ff:ff:ff:ff" ) );
}

TEST( AddressesTest, TypesHaveNames ) {
    EXPECT_EQ( Qel::typeNameOf< Ipv4Address >(), "Qel::Ipv4Address" );
    EXPECT_EQ( Qel::typeNameOf< Ipv6Address >(), "Qel::Ipv6Address" );
    EXPECT_EQ( Qel::typeNameOf< MacAddress >(), "Qel::MacAddress" );
}

// By bytes and by words, at odd places too.
TEST( AddressesTest, BytesStandInNetworkOrder ) {
    using Wire = Qel::Wire< Neighbour >;
    static_assert( Wire::size == 26 && Wire::alignment == 1 && Wire::exact );
    const Neighbour n { "00:1c:73:00:ca:fe", "10.0.0.7", "fe80::1" };
    U8 bytes[ 32 ] {};
    Wire::put( bytes, n );
    const U8 expected[ 32 ] = { 0, 0x1c, 0x73, 0, 0xca, 0xfe, 10, 0, 0, 7, 0xfe, 0x80, 0,
                                0, 0,    0,    0, 0,    0,    0,  0, 0, 0, 0,    0,    1 };
    EXPECT_THAT( bytes, testing::ElementsAreArray( expected ) );
    Qel::U64 words[ 4 ] {};
    Wire::toWords< 0 >( words, n );
    EXPECT_EQ( std::memcmp( words, bytes, sizeof bytes ), 0 );
    Neighbour again;
    Wire::fromWords< 0 >( words, again );
    EXPECT_EQ( again.mac, n.mac );
    EXPECT_EQ( again.v4, n.v4 );
    EXPECT_EQ( again.v6, n.v6 );
    Neighbour got;
    Wire::get( bytes, got );
    EXPECT_EQ( got.v6, n.v6 );
    Qel::String layout;
    Wire::layout( layout, "n", 0 );
    EXPECT_EQ( layout, "n.mac:Qel::MacAddress@0,n.v4:Qel::Ipv4Address@6,n.v6:Qel::Ipv6Address@10" );
}

} // namespace
