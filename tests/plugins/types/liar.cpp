// A plug-in that lists a type which it does not register.

namespace {

__attribute__( ( section( ".qel.type" ), used, retain ) ) const char typeNames[] = "Plug::Missing";

} // namespace
