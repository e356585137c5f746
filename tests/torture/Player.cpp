#include "torture/Player.h"

#include <algorithm>
#include <chrono>
#include <fstream>

#include <poll.h>
#include <unistd.h>

#include <Qel/System>
#include <QelKrell/Exception>

#include "Descriptors.h"
#include "torture/FollowerPart.h"
#include "torture/WriterPart.h"

namespace TortureTest {

namespace {

constexpr double forEver = 600; // seconds; an order comes before
constexpr double noPolls = 86400;

std::string pathOf( U32 entity ) { return "site/e" + std::to_string( entity ); }

void phaseIs( Scene& scene, Phase phase ) {
    Dov::Atomics::storeRelease( &scene.phase, U32( phase ) );
}

// Takes what lies in a pipe that does not block.
void drain( int pipe ) {
    char bytes[ 64 ];
    while ( ::read( pipe, bytes, sizeof bytes ) == sizeof bytes ) {
    }
}

} // namespace

// Orders end the event loop's wait.
class Player::OrderWatch : public Qel::FileDescriptor::Notifiee {
public:
    explicit OrderWatch( const Qel::Ptr< Qel::FileDescriptor >& descriptor ) {
        notifierIs( descriptor );
        isRegisteredNotifieeIs( true );
    }
    void onReadableCount() override { drain( notifier()->descriptor() ); }
};

Player::Player( Stage& stage, U32 number, const Wires& wires )
    : stage_( stage ),
      scene_( stage.scenes[ number ] ),
      wires_( wires ),
      random_( scene_.seed ),
      site_( false ),
      orders_( new Qel::FileDescriptor( "orders" ) ),
      watch_( new OrderWatch( orders_ ) ),
      places_( stage.entities ) {
    site_.mount.handleInitialized();
    orders_->descriptorIs( wires.orders );
    orders_->notifyOnReadableIs( true );
    Qel::System::runOnce( 0 );
    bare_ = level();
}

Player::~Player() {
    watch_ = nullptr;
    orders_->descriptorIs( -1 );
}

int Player::run() {
    try {
        play();
    } catch ( const std::exception& e ) {
        count( Figure::crashed, 1, e.what() );
        answer();
        return 3;
    }
    return 0;
}

void Player::play() {
    move();
    while ( !ended_ ) {
        const U32 order = Dov::Atomics::loadAcquire( &scene_.order );
        if ( order != taken_ ) {
            taken_ = order;
            take( Order( order % 16 ) );
            answer();
        } else if ( working_ ) {
            work();
        } else {
            phaseIs( scene_, Phase::idle );
            turn( forEver );
        }
    }
}

void Player::take( Order order ) {
    switch ( order ) {
    case Order::work:
        working_ = true;
        return;
    case Order::rest:
        working_ = false;
        return;
    case Order::move:
        return move();
    case Order::look:
        return look();
    case Order::pulse:
    case Order::lap:
        return write( order );
    case Order::agree:
        return agree();
    case Order::end:
        return leaveAll();
    }
}

void Player::answer() {
    Dov::Atomics::storeRelease( &scene_.answer, taken_ );
    if ( ::write( wires_.bell, "", 1 ) != 1 ) {
        return; // the bell is full: it rings all the same
    }
}

// --- Work

void Player::work() {
    const bool asleep = is( Habits::sleepy ) && !writes();
    phaseIs( scene_, Phase::changing );
    for ( Place& place : places_ ) {
        if ( place.part && !asleep ) {
            place.part->work( random_ );
        }
    }
    phaseIs( scene_, Phase::idle );
    if ( asleep ) {
        count( Figure::sleeps );
        turn( forEver );
    } else if ( is( Habits::pauses ) && random_.oneIn( 8 ) ) {
        turn( random_( 1000 ) * 1e-6 );
    } else if ( random_.oneIn( 4 ) ) {
        turn( 0 );
    }
}

bool Player::writes() const {
    return std::any_of( places_.begin(), places_.end(), []( const Place& place ) {
        return place.post.taken && place.post.role == QelKrell::writer;
    } );
}

// One that polls never gets its writers' welcome: it has to look by itself.
void Player::turn( double seconds ) {
    if ( !polls() ) {
        Qel::System::runOnce( seconds );
        return;
    }
    poll();
    pollfd order { wires_.orders, POLLIN, 0 };
    if ( ::poll( &order, 1, seconds == 0 ? 0 : 1 ) == 1 ) {
        drain( wires_.orders );
    }
}

void Player::poll() {
    for ( const Place& place : places_ ) {
        if ( place.part ) {
            for ( const auto& shelf : place.part->shelves() ) {
                shelf->control().poll();
            }
        }
    }
}

// --- Posts

void Player::move() {
    for ( U32 i = 0; i < places_.size(); ++i ) {
        const Post post = Post::of( scene_.posts[ i ] );
        if ( post != places_[ i ].post ) {
            level_ = Level();
            const bool anotherType = !post.taken || post.type != places_[ i ].post.type;
            if ( places_[ i ].entity && ( anotherType || is( Habits::unmounts ) ) ) {
                leave( i );
            }
            if ( post.taken ) {
                mount( i, post );
            }
        }
    }
}

void Player::leave( U32 number ) {
    Place& place = places_[ number ];
    place = Place();
    site_.mount.doUnmount( Qel::String8( pathOf( number ).c_str() ) );
}

void Player::mount( U32 number, Post post ) {
    Place& place = places_[ number ];
    place.part.reset();
    phaseIs( scene_, Phase::mounting );
    const bool writes = post.role == QelKrell::writer;
    const bool cleared = writes && post.cleanup && clear( number );
    post.cleanup = false;
    place.entity =
        site_.mount.doMount( Qel::String8( pathOf( number ).c_str() ), typeNames[ post.type ],
                             infoFor( { true, post.role, post.type, cleared } ) );
    place.post = post;
    if ( writes ) {
        place.part.reset( new WriterPart( stage_, scene_, *place.entity, post, number, cleared ) );
    } else {
        place.part.reset( new FollowerPart( stage_, scene_, *place.entity, post, number ) );
        for ( const auto& shelf : place.part->shelves() ) {
            shelf->control().yieldTimeIs( is( Habits::yielding ) ? 1e-9 : 0.1 );
            shelf->control().sampleIs( random_.oneIn( 2 ) ? 0 : 20 );
            shelf->control().pollTimeIs( noPolls );
            shelf->control().notifying( true ); // the first round is due now
        }
    }
    scene_.posts[ number ] = post.word();
    phaseIs( scene_, Phase::idle );
}

// False when a removal was broken off already: whether it was done is to be seen first.
bool Player::clear( U32 number ) {
    BookPage* const pages = stage_.books + number * shelvesOfEntity;
    for ( U32 i = 0; i < shelvesOfEntity; ++i ) {
        if ( Book( pages[ i ] ).isClearing() || Book( pages[ i ] ).fenix() == 0 ) {
            return false;
        }
    }
    for ( U32 i = 0; i < shelvesOfEntity; ++i ) {
        Book( pages[ i ] ).beginClear();
    }
    if ( !places_[ number ].entity && random_.oneIn( 2 ) ) {
        site_.mount.cleanup( Qel::String8( pathOf( number ).c_str() ) );
    }
    return true;
}

QelKrell::MountInfo Player::infoFor( Post post ) {
    QelKrell::MountInfo info( QelKrell::QelKrellType( post.role ), post.cleanup );
    for ( const char* name : { "small", "large" } ) {
        const U32 sizes[] = { 0, 1, 4, stage_.books[ 0 ].keys / 2 };
        info.collectionInfoIs( { name, sizes[ random_( 4 ) ] } );
    }
    return info;
}

// --- Other orders

void Player::look() {
    for ( const Place& place : places_ ) {
        if ( place.part ) {
            place.part->look();
        }
    }
}

void Player::write( Order order ) {
    for ( const Place& place : places_ ) {
        if ( place.part && order == Order::pulse ) {
            place.part->pulse( random_ );
        } else if ( place.part ) {
            place.part->lap( random_ );
        }
    }
}

// Nobody writes any more. What is not here in time is asked for: it was there then, and only the
// call for it did not come; or it was lost.
void Player::agree() {
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::seconds( stage_.patienceSeconds );
    const auto allAgree = [ & ] {
        return std::all_of( places_.begin(), places_.end(), [ & ]( const Place& place ) {
            const bool calls = !polls() && place.post.role != QelKrell::writer;
            return !place.part ||
                   ( place.part->agrees() && ( !calls || place.part->allConnected() ) );
        } );
    };
    const auto waited = [ & ]( auto&& condition ) {
        while ( !condition() ) {
            if ( std::chrono::steady_clock::now() >= end ) {
                return false;
            }
            turn( 1 );
        }
        return true;
    };
    if ( waited( allAgree ) ) {
        count( Figure::agreements );
        count( Figure::leaked, !waited( [ & ] { return isLevel(); } ), unlevel() );
        return;
    }
    std::string what;
    for ( const Place& place : places_ ) {
        what += place.part ? place.part->difference() + " " : "";
    }
    poll();
    count( allAgree() ? Figure::rescuedByTimer : Figure::lost, 1, what );
}

// --- Resources

// Without connections of other processes, which come and go.
Player::Level Player::level() const {
    Level now;
    now.descriptors = QelKrellTest::openDescriptors();
    std::ifstream maps( "/proc/self/maps" );
    for ( std::string line; std::getline( maps, line ); ) {
        now.mappings += line.find( std::getenv( "KRELL_ROOT" ) ) != std::string::npos ||
                        line.find( "/memfd:" ) != std::string::npos;
    }
    for ( const Place& place : places_ ) {
        const U32 connections = place.part ? place.part->connections() : 0;
        now.descriptors -= connections;
        now.mappings -= connections;
    }
    return now;
}

// The least that was held with these posts is level. A connection that a writer did not answer yet,
// or did not close yet, comes and goes; a poller's calls do.
bool Player::isLevel() {
    const Level now = level();
    if ( level_ == Level() ) {
        level_ = now;
    }
    level_.descriptors = std::min( level_.descriptors, now.descriptors );
    level_.mappings = std::min( level_.mappings, now.mappings );
    const std::size_t calls = polls() ? places_.size() * shelvesOfEntity : 0;
    return now.descriptors <= level_.descriptors + calls && now.mappings <= level_.mappings + calls;
}

std::string Player::unlevel() const {
    const Level now = level();
    return "descriptors " + std::to_string( level_.descriptors ) + " then " +
           std::to_string( now.descriptors ) + ", mappings " + std::to_string( level_.mappings ) +
           " then " + std::to_string( now.mappings );
}

void Player::leaveAll() {
    for ( U32 i = 0; i < places_.size(); ++i ) {
        if ( places_[ i ].entity ) {
            leave( i );
        }
    }
    level_ = bare_;
    count( Figure::leaked, !isLevel(), "with nothing mounted: " + unlevel() );
    ended_ = true;
}

void playAndExit( Stage& stage, U32 number, const Wires& wires ) {
    int status = 0;
    {
        std::unique_ptr< Player > player;
        try {
            player = std::make_unique< Player >( stage, number, wires );
            status = player->run();
        } catch ( const std::exception& e ) {
            Stage::count( stage.scenes[ number ], Figure::crashed, 1, e.what() );
            status = 3;
        }
    }
    _exit( status );
}

} // namespace TortureTest
