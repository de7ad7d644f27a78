#include "service/program_path.h"

#include <gtest/gtest.h>

#include "temporary_folder.h"

namespace vesk::controller {
namespace {

TEST(ProgramPath, PrefersAConfiguredPath) {
    const TemporaryFolder folder;
    folder.write("vesk", "", 0700);
    EXPECT_EQ(programPath("one", "two", folder.path()), "one");
    EXPECT_EQ(programPath(std::nullopt, "two", folder.path()), "two");
}

TEST(ProgramPath, SearchesItsOwnFolderAndThenPath) {
    const TemporaryFolder folder;
    EXPECT_EQ(programPath(std::nullopt, std::nullopt, folder.path()), "vesk");
    const auto program = folder.write("vesk", "", 0700);
    EXPECT_EQ(programPath(std::nullopt, std::nullopt, folder.path()), program.string());
}

TEST(ProgramPath, FindsItsOwnFolder) {
    EXPECT_TRUE(std::filesystem::is_directory(ownFolder()));
}

}  // namespace
}  // namespace vesk::controller
