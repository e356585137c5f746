#include <Qel/ActivityManager>

#include <Qel/Exception>

namespace Qel {

ActivityManagerConfig::ActivityManagerConfig( const Name& name )
    : Entity( name ), clock_( new Clock( "clock" ) ) {}

ActivityManagerConfig::~ActivityManagerConfig() = default;

void ActivityManagerConfig::executionTimeIs( Seconds seconds ) {
    if ( !( seconds >= 0 ) ) {
        throw RangeException( "execution time " + String( std::to_string( seconds ) ) +
                              " is not a number of seconds from 0" );
    }
    executionTime_ = seconds;
}

ActivityManager::ActivityManager()
    : Entity( "activityManager" ), config_( new ActivityManagerConfig( "config" ) ) {}

ActivityManager::~ActivityManager() = default;

ActivityManager::Ptr ActivityManager::activityManager() {
    static const auto only = new Ptr( new ActivityManager );
    return *only;
}

} // namespace Qel
