// Traces one message of level 0 and one of level 5 under the handle of its argument, with the
// settings that it finds in the environment.

#include <Qel/Trace>

int main( int, char** arguments ) {
    const Qel::TraceHandle handle( arguments[ 1 ], false );
    for ( const int level : { 0, 5 } ) {
        std::stringstream text;
        text << "message";
        Qel::traceHelper( handle.name(), "context", text, level, handle.enabled( level ), "unit", 7,
                          "main" );
    }
    return 0;
}
