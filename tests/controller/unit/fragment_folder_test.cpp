#include "config/fragments/fragment_folder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "configuration_text.h"
#include "fragment_folder_fixture.h"

namespace vesk::controller {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

TEST_F(FragmentFolderTest, PutsFlowsTogether) {
    write("00-base.toml", std::string(listening));
    write("10-a.toml", flowTable("a", 1));
    write("20-b.toml", flowTable("b", 2) + flowTable("c", 3));
    EXPECT_THAT(read(), ElementsAre(1U, 2U, 3U));
    EXPECT_TRUE(reading.complete);
    EXPECT_EQ(reading.configuration->downstream.port, 4500);
    EXPECT_EQ(withoutFolder(reading.configuration->downstreamLines.file), "00-base.toml");
    EXPECT_THAT(fragments.fragments(),
                ElementsAre(Pair("00-base.toml", false), Pair("10-a.toml", false),
                            Pair("20-b.toml", false)));
}

TEST_F(FragmentFolderTest, IgnoresDirectoriesAndOtherNames) {
    write("00-base.toml", std::string(listening));
    write(".hidden.toml", "nonsense");
    write("a.toml~", "nonsense");
    write("alice.key", "00");
    std::filesystem::create_directory(folder.path() / "b.toml");
    EXPECT_THAT(read(), IsEmpty());
    EXPECT_TRUE(reading.complete);
}

TEST_F(FragmentFolderTest, ReadsOnlyWhatChanged) {
    write("00-base.toml", std::string(listening));
    write("10-a.toml", flowTable("a", 1));
    read();
    read();
    EXPECT_FALSE(reading.changed);
    EXPECT_FALSE(reading.configuration);
    write("10-a.toml", flowTable("a", 11));
    EXPECT_THAT(read(), ElementsAre(11U));
    EXPECT_TRUE(reading.changed);
    read(FilesToRead::all);
    EXPECT_TRUE(reading.changed);
    write("20-b.toml", flowTable("b", 2));
    EXPECT_THAT(read(), ElementsAre(2U, 11U));
    remove("10-a.toml");
    EXPECT_THAT(read(), ElementsAre(2U));
}

TEST_F(FragmentFolderTest, KeepsTheFlowsOfAFragmentWithAnError) {
    write("00-base.toml", std::string(listening));
    write("10-a.toml", flowTable("a", 1));
    write("20-b.toml", flowTable("b", 2));
    read();
    write("10-a.toml", flowTable("a", -1));
    write("20-b.toml", flowTable("b", 22));
    EXPECT_THAT(read(), ElementsAre(1U, 22U));
    EXPECT_THAT(errors(), ElementsAre("10-a.toml:2: flows.a.label must be an integer from 1 to "
                                      "4294967295"));
    EXPECT_EQ(withoutFolder(reading.errors.front().consequence),
              "10-a.toml is not usable: its flows are unchanged");
    EXPECT_THAT(fragments.fragments(),
                ElementsAre(Pair("00-base.toml", false), Pair("10-a.toml", true),
                            Pair("20-b.toml", false)));

    // An error is reported once, or whenever all fragments are read.
    write("20-b.toml", flowTable("b", 2));
    EXPECT_THAT(read(), ElementsAre(1U, 2U));
    EXPECT_FALSE(reading.complete);
    EXPECT_THAT(errors(), IsEmpty());
    read(FilesToRead::all);
    EXPECT_THAT(errors(), testing::SizeIs(1));

    write("10-a.toml", flowTable("a", 111));
    EXPECT_THAT(read(), ElementsAre(2U, 111U));
    EXPECT_TRUE(reading.complete);
    EXPECT_THAT(reading.mended, ElementsAre((folder.path() / "10-a.toml").string()));

    write("10-a.toml", "[");
    read();
    remove("10-a.toml");
    EXPECT_THAT(read(), ElementsAre(2U));
    EXPECT_TRUE(reading.complete);
}

TEST_F(FragmentFolderTest, FollowsLinksThatAreSwapped) {
    const auto version = [&](const std::string& name, int label, const std::string& key) {
        std::filesystem::create_directory(folder.path() / name);
        folder.write(name + "/a.toml",
                     flowTable("a", label, "from_peer = { key_file = \"a.key\" }\n"));
        folder.write(name + "/a.key", key);
    };
    version("..one", 1, "00");
    version("..two", 1, "1122");
    std::filesystem::create_symlink("..one", folder.path() / "..data");
    std::filesystem::create_symlink("..data/a.toml", folder.path() / "a.toml");
    std::filesystem::create_symlink("..data/a.key", folder.path() / "a.key");
    write("00-base.toml", std::string(listening));
    EXPECT_THAT(read(), ElementsAre(1U));
    std::filesystem::create_symlink("..two", folder.path() / "..data_tmp");
    std::filesystem::rename(folder.path() / "..data_tmp", folder.path() / "..data");
    EXPECT_THAT(read(), ElementsAre(1U));
    EXPECT_EQ(reading.configuration->flows.at(1).fromPeer.signature->keyDigits, "1122");
}

TEST_F(FragmentFolderTest, NoticesAChangedKeyFileOfAnotherFolder) {
    const TemporaryFolder keys;
    const std::string key = keys.path() / "a.key";
    write("00-base.toml", std::string(listening));
    write("10-a.toml", flowTable("a", 1, "from_peer = { key_file = \"" + key + "\" }\n"));
    EXPECT_THAT(read(), IsEmpty());
    keys.write("a.key", "00");
    EXPECT_THAT(read(), ElementsAre(1U));
    keys.write("a.key", "1122");
    EXPECT_THAT(read(), ElementsAre(1U));
    EXPECT_EQ(reading.configuration->flows.at(1).fromPeer.signature->keyDigits, "1122");
    std::filesystem::remove(key);
    EXPECT_THAT(read(), ElementsAre(1U));
    EXPECT_THAT(fragments.fragments(),
                ElementsAre(Pair("00-base.toml", false), Pair("10-a.toml", true)));
}

TEST_F(FragmentFolderTest, ComparesKeyFilesOfAnotherFolderIfTheFolderHasChanged) {
    const TemporaryFolder keys;
    keys.write("a.key", "00");
    const std::string key = keys.path() / "a.key";
    write("00-base.toml", std::string(listening));
    write("10-a.toml", flowTable("a", 1, "from_peer = { key_file = \"" + key + "\" }\n"));
    read();
    // Overwritten in place: the folder is the same.
    keys.write("a.key", "1122");
    read(FilesToRead::changedFolders);
    EXPECT_FALSE(reading.changed);
    read();
    EXPECT_EQ(reading.configuration->flows.at(1).fromPeer.signature->keyDigits, "1122");
    keys.write("a.new", "334455");
    std::filesystem::rename(keys.path() / "a.new", key);
    read(FilesToRead::changedFolders);
    EXPECT_EQ(reading.configuration->flows.at(1).fromPeer.signature->keyDigits, "334455");
    keys.write("unused.key", "00");
    read(FilesToRead::changedFolders);
    EXPECT_FALSE(reading.changed);
}

TEST_F(FragmentFolderTest, ReportsFilesThatCannotBeRead) {
    write("00-base.toml", std::string(listening));
    std::filesystem::create_symlink("nowhere", folder.path() / "10-a.toml");
    write("20-b.toml", "");
    std::filesystem::resize_file(folder.path() / "20-b.toml", (256U << 20U) + 1);
    EXPECT_THAT(read(), IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("10-a.toml: cannot be read: No such file or directory",
                                      "20-b.toml: is larger than 268435456 bytes"));
}

TEST_F(FragmentFolderTest, KeepsEverythingWithoutTheFolder) {
    const std::filesystem::path path = folder.path() / "conf.d";
    std::filesystem::create_directory(path);
    folder.write("conf.d/base.toml", std::string(listening) + flowTable("a", 1));
    FragmentFolder moved(path, ReadingRules{});
    EXPECT_TRUE(moved.read(FilesToRead::changed).configuration);
    std::filesystem::rename(path, folder.path() / "elsewhere");
    const FolderReading gone = moved.read(FilesToRead::changed);
    EXPECT_TRUE(gone.changed);
    EXPECT_FALSE(gone.configuration);
    EXPECT_EQ(gone.errors.front().lines.front(),
              path.string() + ": cannot be read: No such file or directory");
    EXPECT_EQ(gone.errors.front().consequence,
              path.string() + " is not usable: the running configuration is unchanged");
    EXPECT_FALSE(moved.read(FilesToRead::changed).changed);
    std::filesystem::rename(folder.path() / "elsewhere", path);
    EXPECT_TRUE(moved.read(FilesToRead::changed).complete);
}

}  // namespace
}  // namespace vesk::controller
