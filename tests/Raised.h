// -*- C++ -*-
// What a piece of code threw, for tests that compare messages and classes.

#pragma once

#include <string>

#include <gtest/gtest.h>

namespace QelKrellTest {

// The message of the exception of exactly type E that `f` throws; anything else fails the test.
template < class E, class F >
std::string raised( F&& f ) {
    try {
        f();
    } catch ( const E& e ) {
        EXPECT_EQ( std::string( typeid( e ).name() ), typeid( E ).name() ) << e.what();
        return e.what();
    } catch ( const std::exception& e ) {
        ADD_FAILURE() << "an exception of another kind, " << typeid( e ).name() << ": " << e.what();
        return std::string();
    }
    ADD_FAILURE() << "nothing was thrown";
    return std::string();
}

} // namespace QelKrellTest
