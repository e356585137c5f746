// The names of the types that this library defines, for tools and loaders that read them from the
// file. `retain` keeps the section through section garbage collection, `used` through link-time
// optimisation; a section that is loaded survives strip.

// The section is these bytes and no others: the other compiler leaves it alone by itself.
#ifdef __clang__
#define QEL_BARE __attribute__( ( no_sanitize( "address" ) ) )
#else
#define QEL_BARE
#endif

namespace {

__attribute__( ( section( ".qel.type" ), used, retain ) ) QEL_BARE const char typeNames[] =
    "QelKrell::ReaderCounters\0"
    "QelKrell::WriterCounters\0"
    "QelKrell::CollectionControl\0"
    "QelKrell::QelKrellType\0"
    "QelKrell::RootPath\0"
    "QelKrell::WriterUnlock\0"
    "QelKrell::WriterUnlockSm\0"
    "QelKrell::CollectionInfo\0"
    "QelKrell::MountInfo\0"
    "QelKrell::KrellEntities\0"
    "QelKrell::Mount\0"
    "QelKrell::QelMountStatus";
static_assert( sizeof typeNames == 278 );

} // namespace
