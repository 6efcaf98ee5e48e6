#include "fakes/OwnEnvironment.h"

#include <gmock/gmock.h>

/// main() of the test programs, in place of GoogleTest's: the tests do not see the environment of whoever runs them.
int main(int argc, char** argv) {
    orlinth::fakes::enterOwnEnvironment();
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
