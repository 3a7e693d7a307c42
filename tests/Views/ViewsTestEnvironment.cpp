// Every test of this program runs with the offscreen QApplication already
// built, so that views can be constructed before anything is rendered.
#include "ViewsTestSupport.h"

#include <gtest/gtest.h>

namespace {

class ViewsApplication : public ::testing::Environment {
public:
    void SetUp() override { sorva::testing::viewsApp(); }
};

const auto* const environment = ::testing::AddGlobalTestEnvironment(new ViewsApplication);

} // namespace
