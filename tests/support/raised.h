// What a piece of code raises, for one-line checks of kinds and messages.
#ifndef FERRYGATE_TESTS_SUPPORT_RAISED_H
#define FERRYGATE_TESTS_SUPPORT_RAISED_H

#include <gtest/gtest.h>

#include <string>

#include "commons/exceptions.h"

namespace tavik {
namespace testing {

// The message of the exception of kind `Tag` that `body` raises. A test failure when it raises
// nothing; an exception of another kind passes through and fails the test.
template <void (*Tag)(), class Body>
std::string messageOf(Body body) {
    try {
        body();
        ADD_FAILURE() << "nothing raised";
    } catch (const Exc<Tag>& e) {
        return e.message();
    }
    return "";
}

}  // namespace testing
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_RAISED_H
