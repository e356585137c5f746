#include <Krell/Reigns>

#include <algorithm>
#include <charconv>
#include <ctime>

#include <Krell/Util>

namespace Krell {

namespace {

constexpr std::string_view key = "reign: ";
constexpr std::size_t numberDigits = 15;
constexpr std::size_t seriesDigits = 16; // hexadecimal
constexpr std::size_t checkDigits = 8;   // hexadecimal
constexpr std::size_t seriesAt = key.size() + numberDigits + 1;
constexpr std::size_t checkAt = seriesAt + seriesDigits + 1;
static_assert( checkAt + checkDigits + 1 == ReignLine::size_ );

// In lower case, filled up with zeros.
std::string digits( U64 value, std::size_t width, int base ) {
    char text[ 20 ];
    const auto [ end, error ] = std::to_chars( text, text + sizeof text, value, base );
    const std::size_t length = std::size_t( end - text );
    return std::string( width - length, '0' ) + std::string( text, length );
}

U64 value( std::string_view text, int base ) {
    U64 number = 0;
    std::from_chars( text.data(), text.data() + text.size(), number, base );
    return number;
}

} // namespace

// --- The line

// What is not as text() would write it is none.
std::optional< ReignLine > ReignLine::parse( std::string_view text ) {
    if ( text.size() < size_ ) {
        return std::nullopt;
    }
    const ReignLine line { value( text.substr( key.size(), numberDigits ), 10 ),
                           value( text.substr( seriesAt, seriesDigits ), 16 ) };
    const bool sound = line.number > 0 && line.number <= maxNumber_ && line.series > 0 &&
                       text.substr( 0, size_ ) == line.text();
    return sound ? std::optional( line ) : std::nullopt;
}

std::string ReignLine::text() const {
    std::string line = std::string( key ) + digits( number, numberDigits, 10 ) + " " +
                       digits( series, seriesDigits, 16 );
    const U32 check = Util::hash( line.data(), unsigned( line.size() ) );
    return line + " " + digits( check, checkDigits, 16 ) + "\n";
}

ReignLine ReignLine::after( const std::optional< ReignLine >& last ) {
    return last && last->number < maxNumber_ ? ReignLine { last->number + 1, last->series }
                                             : ReignLine { 1, now() };
}

U64 ReignLine::now() {
    constexpr U64 nanoseconds = 1'000'000'000;
    timespec time {};
    ::clock_gettime( CLOCK_MONOTONIC, &time );
    return U64( time.tv_sec ) * nanoseconds + U64( time.tv_nsec );
}

// --- What ended

bool Reigns::sameHolder( const Reigns& before ) const noexcept {
    const auto same = []( auto one, auto other ) {
        return one <= 0 || other <= 0 || one == other; // 0 or less: not known
    };
    const bool sameNumber = current == 0 || before.current == 0 || current == before.current;
    return held() && before.held() && sameNumber && same( holder, before.holder );
}

Reigns Reigns::ended() const noexcept { return Reigns { std::max( over, current ), 0, 0, series }; }

U64 Reigns::ended( const Reigns& before, const Reigns& now ) noexcept {
    const U64 seen = before.held() && !now.sameHolder( before ) ? 1 : 0;
    const bool begun = before.series == 0 && before.over == 0;
    const bool goesOn = now.series == before.series || begun;
    if ( !goesOn || now.over < before.over || now.over - before.over > mostAtOnce_ ) {
        return seen;
    }
    return std::max( now.over - before.over, seen );
}

U64 Reigns::endedOfNew( const Reigns& now, U64 since ) noexcept {
    return now.series >= since && now.over <= mostAtOnce_ ? now.over : 0;
}

} // namespace Krell
