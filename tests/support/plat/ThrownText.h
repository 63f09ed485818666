#pragma once

#include <gtest/gtest.h>

#include <string>

#include "plat/Exception.h"

namespace zeltest {

// The text of the E that fn() throws; a test failure (and "") when it throws nothing. Other
// exception types pass through and fail the test.
template <typename E = plat::Exception, typename Fn>
std::string thrownText(Fn&& fn) {
    try {
        fn();
    } catch (const E& e) {
        return e.str();
    }
    ADD_FAILURE() << "no exception";
    return "";
}

}  // namespace zeltest
