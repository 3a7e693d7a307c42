// Every test of this program starts with an empty configuration folder of its
// own: the program and the settings code read $XDG_CONFIG_HOME, and whatever
// the machine's user has saved there must not change what the tests see.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

class IsolatedConfigHome : public ::testing::Environment {
public:
    void SetUp() override
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "sorva-tests-config-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
            FAIL() << "cannot create a configuration folder for the tests";
        folder = pattern;
        setenv("XDG_CONFIG_HOME", folder.c_str(), 1);
    }
    void TearDown() override
    {
        std::error_code ec;
        std::filesystem::remove_all(folder, ec);
    }

private:
    std::filesystem::path folder;
};

const auto* const environment = ::testing::AddGlobalTestEnvironment(new IsolatedConfigHome);

} // namespace
