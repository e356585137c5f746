// A collection's control object that records its calls.

#pragma once

#include <Krell/ControlBase>
#include <gmock/gmock.h>

namespace QelKrellTest {

class ControlMock : public Krell::ControlBase {
public:
    MOCK_METHOD( QelKrell::ReaderCounters, readerCounters, (), ( override ) );
    MOCK_METHOD( QelKrell::WriterCounters, writerCounters, (), ( override ) );
    MOCK_METHOD( void, init, ( QelKrell::QelKrellType, bool, unsigned ), ( override ) );
    MOCK_METHOD( void, cleanup, (), ( override ) );
    MOCK_METHOD( std::string, rootPath, (), ( override ) );
    MOCK_METHOD( std::string, krellName, (), ( override ) );
    MOCK_METHOD( bool, validate, (), ( override ) );
    MOCK_METHOD( int, mountStatus, (), ( override ) );
    MOCK_METHOD( Qel::U64, sequence, (), ( override ) );
    MOCK_METHOD( Qel::U32, fenixId, (), ( override ) );
    MOCK_METHOD( std::string, owner, (), ( override ) );
    MOCK_METHOD( void, detach, (), ( override ) );
    MOCK_METHOD( bool, resize, (), ( override ) );
    MOCK_METHOD( Qel::U32, maxSize, (), ( override ) );
    MOCK_METHOD( Qel::U32, capacity, (), ( override ) );
    MOCK_METHOD( void, notifying, ( bool ), ( override ) );
    MOCK_METHOD( bool, yieldTimeIs, ( const double& ), ( override ) );
    MOCK_METHOD( void, sampleIs, ( unsigned ), ( override ) );
};

} // namespace QelKrellTest
