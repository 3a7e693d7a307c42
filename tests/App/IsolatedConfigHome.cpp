// Every test of this program starts with an empty configuration folder, so
// that what the machine's user saved cannot change what the tests see.
#include "TestSupport.h"

#include <gtest/gtest.h>

namespace {

class IsolatedConfigHome : public ::testing::Environment {
public:
    void SetUp() override { home = std::make_unique<sorva::testing::ConfigHome>(); }
    void TearDown() override { home.reset(); }

private:
    std::unique_ptr<sorva::testing::ConfigHome> home;
};

const auto* const environment = ::testing::AddGlobalTestEnvironment(new IsolatedConfigHome);

} // namespace
