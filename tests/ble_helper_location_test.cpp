// Which helper library the BLE manager is willing to load, and from where.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "../src/ble/HelperLocation.h"

namespace {
namespace fs = std::filesystem;

class HelperLocation : public ::testing::Test {
protected:
    void SetUp() override
    {
        char dir[] = "/tmp/nkr-helper-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        tmp_ = dir;
        oldCwd_ = fs::current_path();
        fs::current_path(tmp_);
        unsetenv("NKR_BLE_HELPER");
    }
    void TearDown() override
    {
        fs::current_path(oldCwd_);
        std::error_code ec;
        fs::remove_all(tmp_, ec);
        if (!installed_.empty()) fs::remove(installed_, ec);
        if (createdInstallDir_) fs::remove(fs::path(installed_).parent_path(), ec);
        unsetenv("NKR_BLE_HELPER");
    }
    // Writes a helper file with the given mode; an absolute path is taken as is.
    std::string file(const std::string& name, mode_t mode)
    {
        const fs::path p = name[0] == '/' ? fs::path(name) : fs::path(tmp_) / name;
        fs::create_directories(p.parent_path());
        std::ofstream(p) << "helper";
        chmod(p.c_str(), mode);
        return p.string();
    }
    std::string tmp_, installed_;
    fs::path oldCwd_;
    bool createdInstallDir_ = false;
};

TEST_F(HelperLocation, FilesOthersCanWriteOrOwnAreRefusedAndLinksCountByTheirTarget)
{
    fs::create_symlink(file("mine.so", 0644), tmp_ + "/good-link.so");
    fs::create_symlink(file("world.so", 0646), tmp_ + "/bad-link.so");
    const std::pair<std::string, bool> cases[] = {
        {tmp_ + "/mine.so", true}, {file("private.so", 0700), true}, {file("group.so", 0664), false},
        {tmp_ + "/world.so", false}, {tmp_ + "/missing.so", true},  // the loader reports a missing file
        {tmp_ + "/good-link.so", true}, {tmp_ + "/bad-link.so", false}};
    for (const auto& [path, allowed] : cases) EXPECT_EQ(nkrble::helperRefusal(path.c_str()).empty(), allowed) << path;
    if (geteuid() == 0) {
        const std::string theirs = file("theirs.so", 0644);
        ASSERT_EQ(chown(theirs.c_str(), 12345, 12345), 0);
        EXPECT_NE(nkrble::helperRefusal(theirs.c_str()), "");
    }
    // The environment overrides, but is checked too, and a missing override is not replaced.
    file("lib/libBlueShim.so", 0644);
    const std::string good = file("elsewhere/good.so", 0644), open = file("elsewhere/open.so", 0666);
    for (const auto& [set, chosen] : {std::pair{good, good}, {open, std::string()},
                                      {tmp_ + "/elsewhere/missing.so", tmp_ + "/elsewhere/missing.so"}}) {
        setenv("NKR_BLE_HELPER", set.c_str(), 1);
        EXPECT_EQ(nkrble::chooseHelperPath(), chosen) << set;
    }
}

TEST_F(HelperLocation, WorkingFolderFirstThenTheInstalledHelper)
{
    // Nothing anywhere: the usual path, so the loader's message names it.
    EXPECT_EQ(nkrble::chooseHelperPath(), "./lib/libBlueShim.so");
    // A helper where the SDK installs it, next to the library that holds this code.
    installed_ = nkrble::installedHelperPath();
    ASSERT_FALSE(installed_.empty());
    createdInstallDir_ = !fs::exists(fs::path(installed_).parent_path());
    ASSERT_FALSE(fs::exists(installed_)) << "left over from an earlier run: " << installed_;
    file(installed_, 0644);
    EXPECT_EQ(nkrble::chooseHelperPath(), installed_) << "nothing in ./lib";
    const std::string local = file("lib/libBlueShim.so", 0644);
    EXPECT_EQ(nkrble::chooseHelperPath(), "./lib/libBlueShim.so") << "./lib comes first";
    chmod(local.c_str(), 0666);
    EXPECT_EQ(nkrble::chooseHelperPath(), installed_) << "a refused ./lib helper falls back";
    chmod(installed_.c_str(), 0666);
    EXPECT_EQ(nkrble::chooseHelperPath(), "") << "both refused";
}

}  // namespace
