#include <Qel/Introspection>

#include <mutex>
#include <utility>

namespace Qel {

namespace {

// Completes the type nodes. Scopes and contexts matter to reactors that build a tree of names; the
// nodes carry full names.
class TypeNodeReactor : public IntrospectionReactor {
public:
    void handleScope( const String& ) override {}
    void handleForeignType( const String& ) override {}
    void handleType( const String&, const Ptr< QelType >& type ) override { type_ = type; }
    void defNoninstantiatingAttr( const String& name,
                                  const String& typeName,
                                  QelAttr::QelAttrIntrospectionFlags flags,
                                  const std::shared_ptr< const AttrAccess >& access ) override {
        QelAttr attr;
        attr.name = name;
        attr.typeName = typeName;
        attr.flags = flags;
        attr.access = access;
        type_->attrIs( std::move( attr ) );
    }
    void handleAttr( const QelAttr& attr ) override { type_->attrIs( attr ); }
    void handleAttrContextExit() override {}
    void handleEnumValue( S64 number, const String& name ) override {
        type_->enumValueIs( number, name );
    }
    void handleScopeExit() override { type_ = nullptr; }

private:
    Ptr< QelType > type_;
};

std::mutex unitsMutex;
std::vector< String >& units() {
    static auto* const list = new std::vector< String >;
    return *list;
}

thread_local RefusedUnits* listener = nullptr;

} // namespace

IntrospectionReactor::~IntrospectionReactor() = default;

void announceForeignType( IntrospectionReactor& reactor, const String& fullName ) {
    const std::size_t colon = fullName.rfind( ':' );
    reactor.handleScope( colon == String::npos ? String() : fullName.substr( 0, colon - 1 ) );
    reactor.handleForeignType( fullName );
    reactor.handleScopeExit();
}

IntrospectionReactor& introspectionReactor() {
    static auto* const reactor = new TypeNodeReactor;
    return *reactor;
}

void unitRegisteredIs( const String& unit ) {
    const std::lock_guard guard( unitsMutex );
    units().push_back( unit );
}

void unitRefusedIs( const RangeException& why ) {
    if ( !listener ) {
        throw;
    }
    if ( listener->first_.empty() ) {
        listener->first_ = why.what();
    }
}

RefusedUnits::RefusedUnits() : outer_( std::exchange( listener, this ) ) {}
RefusedUnits::~RefusedUnits() { listener = outer_; }

void needSameTable( const QelType& known, const Ptr< QelType >& made ) {
    made->ops().describe( introspectionReactor(), made );
    const String difference = known.differenceOf( *made );
    if ( !difference.empty() ) {
        throw RangeException( "there is another type named " + known.fullName() +
                              " already: of the new one, " + difference );
    }
}

std::vector< String > registeredUnits() {
    const std::lock_guard guard( unitsMutex );
    return units();
}

} // namespace Qel
