// A plant, mounted in this process.

#pragma once

#include "mount/Plant.h"
#include "mount/Site.h"

namespace QelKrellTest {

inline constexpr const char* path = "site/north";

inline QelKrell::MountInfo asWriter( Qel::U32 size = 0, bool cleanup = false ) {
    QelKrell::MountInfo info( QelKrell::writer, cleanup );
    info.collectionInfoIs( { "reading", size } );
    info.collectionInfoIs( { "limit", size } );
    return info;
}
inline const QelKrell::MountInfo asReader( QelKrell::reader );

// A mounted plant in a process of its own system database.
class Mounted {
public:
    explicit Mounted( const QelKrell::MountInfo& info, bool local = false ) : site_( local ) {
        site_.mount.handleInitialized();
        remount( info );
    }
    void remount( const QelKrell::MountInfo& info ) {
        plant_ = Qel::ptrCast< MountBench::Plant >(
            site_.mount.doMount( path, MountBench::plantType, info ) );
    }
    MountBench::Plant* operator->() const { return plant_.get(); }
    const MountBench::Plant::Ptr& plant() const noexcept { return plant_; }
    Site& site() { return site_; }

private:
    Site site_;
    MountBench::Plant::Ptr plant_;
};

inline MountBench::Reading readingOf( Qel::U32 sensor, Qel::U32 round ) {
    return { sensor, sensor + round / 8.0, Qel::U64( round ) << 40 };
}
inline bool same( const MountBench::Reading& a, const MountBench::Reading& b ) {
    return Qel::sameValue( a, b );
}

} // namespace QelKrellTest
