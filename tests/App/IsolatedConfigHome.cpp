// Every test of this program starts with an empty configuration folder, so
// that what the machine's user saved cannot change what the tests see.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

namespace {

class IsolatedConfigHome : public ::testing::Environment {
public:
    void SetUp() override
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "sorva-tests-config-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr) << "cannot create a configuration folder for the tests";
        setenv("XDG_CONFIG_HOME", pattern.c_str(), 1);
        folder = pattern;
    }
    void TearDown() override
    {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }

private:
    std::filesystem::path folder;
};

const auto* const environment = ::testing::AddGlobalTestEnvironment(new IsolatedConfigHome);

} // namespace
