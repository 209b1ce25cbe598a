// SPDX-License-Identifier: Apache-2.0
//
// Access to files of other users than that of this process.
#include "access/client_files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/temporary_directory.h"

namespace telvora {
namespace {

using std::filesystem::path;

constexpr uid_t kOther = 12345;
constexpr gid_t kTheirGroup = 12346;

Peer peerOf(uid_t uid, std::vector<gid_t> groups = {}) {
    Peer peer;
    peer.uid = uid;
    peer.gid = 12347;
    peer.groups = std::move(groups);
    return peer;
}

class ClientFilesTest : public testing::Test {
  protected:
    ClientFilesTest() {
        // Another user's folder, as the daemon's user sees it.
        if (geteuid() == 0) own(directory_.path(), getuid(), getgid(), 0755);
    }
    ClientFiles filesOf(Peer peer) const {
        return {std::make_shared<Peer>(std::move(peer)), directories_, admission_};
    }
    static void own(const path& path, uid_t user, gid_t group, mode_t mode) {
        EXPECT_EQ(chown(path.c_str(), user, group), 0);
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
    }
    path write(const std::string& name, uid_t owner, mode_t mode = 0644) const {
        path file = directory_.write(name, "content");
        own(file, owner, getgid(), mode);
        return file;
    }

    test::TemporaryDirectory directory_;
    const std::vector<path> directories_{directory_.path()};
    mutable UploadAdmission admission_;
};

TEST_F(ClientFilesTest, ClientsGoWhereTheirModeBitsLetThem) {
    if (geteuid() != 0) GTEST_SKIP() << "needs files of other users";
    // The owner, the group and the mode of the directory, and whether a client may read and remove there.
    const std::tuple<uid_t, gid_t, mode_t, bool, bool> cases[] = {
        {0, 0, 0755, true, false},           {0, 0, 0757, true, true},
        {0, 0, 01777, true, true},           {0, 0, 0750, false, false},
        {0, 0, 0752, false, false},          {kOther, 0, 0700, true, true},
        {kOther, 0, 0500, true, false},      {kOther, 0, 0077, false, false},
        {0, kTheirGroup, 0770, true, true},  {0, kTheirGroup, 0750, true, false},
        {0, kTheirGroup, 0707, false, false}};
    ClientFiles files = filesOf(peerOf(kOther, {7, kTheirGroup}));
    for (const auto& [user, group, mode, mayRead, mayRemove] : cases) {
        SCOPED_TRACE(testing::Message() << user << ":" << group << " " << std::oct << mode);
        const path file = write("d/file", kOther);
        own(file.parent_path(), user, group, mode);
        const auto opened = files.open(file, "");
        EXPECT_EQ(opened.has_value(), mayRead);
        EXPECT_EQ(opened && files.remove(*opened), mayRemove);
        EXPECT_EQ(exists(file), !mayRemove);
    }
}

TEST_F(ClientFilesTest, ClientsReadTheirOwnReadableFiles) {
    if (geteuid() != 0) GTEST_SKIP() << "needs files of other users";
    ClientFiles files = filesOf(peerOf(kOther));
    EXPECT_TRUE(files.open(write("own", kOther, 0400), ""));
    EXPECT_FALSE(files.open(directory_.path() / "./own", "")) << "a detour";
    for (const auto& [name, owner] : {std::pair{"unreadable", kOther}, {"theirs", uid_t{0}}}) {
        const auto opened = files.open(write(name, owner, owner == 0 ? 0666 : 0044), "");
        EXPECT_TRUE(!opened && opened.error().isRegularFile) << name;
    }
    // Even the superuser's processes get no more than their own.
    EXPECT_FALSE(filesOf(peerOf(0)).open(directory_.path() / "own", ""));
}

TEST_F(ClientFilesTest, ADescriptorIsGoodForReadingButRemovalIsTheOwners) {
    ClientFiles files = filesOf(peerOf(getuid() + 1));
    const path file = directory_.write("file", "content");
    const auto token = files.issueFileExtension(file, UniqueFd(open(file.c_str(), O_RDONLY | O_CLOEXEC)));
    ASSERT_TRUE(token) << token.error();
    const auto opened = files.open(file, *token);
    ASSERT_TRUE(opened) << opened.error().reason;
    EXPECT_EQ(readWholeFile(opened->file.get(), opened->size(), 100), "content");
    EXPECT_EQ(files.remove(*opened).error(), "another user's file");
    EXPECT_FALSE(files.open(file, *token));
}

TEST_F(ClientFilesTest, RemoveLeavesWhatHasTakenTheName) {
    ClientFiles files = filesOf(peerOf(getuid()));
    const path file = directory_.write("file", "content");
    const auto opened = files.open(file, "");
    ASSERT_TRUE(opened) << opened.error().reason;
    rename(file, directory_.path() / "moved");
    EXPECT_FALSE(files.remove(*opened)) << "the name is gone";
    // A hard link is as good as the name was.
    create_hard_link(directory_.path() / "moved", file);
    EXPECT_TRUE(files.remove(*opened));
    create_symlink(directory_.path() / "moved", file);
    EXPECT_EQ(files.remove(*opened).error(), "another file has taken its name");
    EXPECT_TRUE(exists(directory_.path() / "moved"));
}

TEST_F(ClientFilesTest, DirectoriesAreTakenAsTheyAreNow) {
    const path real = directory_.path() / "real";
    create_directories(real);
    create_directory_symlink(real, directory_.path() / "link");
    EXPECT_EQ(canonicalDirectories({directory_.path() / "link/", "relative", "", real / "none/../none"}),
              (std::vector{real, real / "none"}));
}

TEST(ReadWholeFile, ReadsFromTheBeginningToTheEnd) {
    const test::TemporaryDirectory directory;
    const std::string content(200'000, 'x');
    const UniqueFd file(open(directory.write("file", content).c_str(), O_RDONLY | O_CLOEXEC));
    lseek(file.get(), 1000, SEEK_SET);
    // Whatever its size was when it was looked at: it may have grown or shrunk since.
    for (const size_t expected : {size_t{1}, content.size(), content.size() * 2}) {
        EXPECT_EQ(readWholeFile(file.get(), expected, content.size()), content);
        EXPECT_EQ(readWholeFile(file.get(), expected, content.size() - 1), tl::unexpected(EFBIG));
    }
    EXPECT_EQ(readWholeFile(file.get(), 0, 10), "");
    const UniqueFd aDirectory(open(directory.path().c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(readWholeFile(aDirectory.get(), 1, 10), tl::unexpected(EISDIR));
}

}  // namespace
}  // namespace telvora
