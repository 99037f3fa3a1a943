// Whether a user could list a folder: each row is decided three ways, by the kernel with the
// calling thread's credentials switched, by hand from modes and ACLs, and by a child process that
// really runs as that user, and all three must give the row's answer.
#include <gtest/gtest.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/ErrorCode.h"
#include "platform/FolderAccess.h"
#include "platform/Utf.h"
#include "tests/support/RunAsUser.h"
#include "tests/support/ScratchRoot.h"

namespace vigil_test {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kUser = 61001;
constexpr gid_t kGroup = 61001;
constexpr gid_t kSupplementary = 61002;
constexpr gid_t kOtherGroup = 61003;
constexpr uid_t kServiceUser = 61009;  // a service without capabilities, judging for kUser

Osb::PeerIdentity User() {
    Osb::PeerIdentity user;
    user.known = true;
    user.uid = kUser;
    user.gid = kGroup;
    user.groups = {kSupplementary};
    return user;
}

// How the row's directory is made below the base folder.
struct Row {
    const char* name;
    const char* path;  // the folder asked about, relative to the base, without the closing '/'
    uint32_t expected;
};

class FolderAccessTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // The scratch root is made 0700 by mkdtemp; every user must reach the base.
        ASSERT_EQ(::chmod(root_.path().c_str(), 0755), 0);
        base_ = root_.path() + "/tree";
        fs::create_directory(base_);
        ASSERT_EQ(::chmod(base_.c_str(), 0755), 0);
        aclSupported_ = true;
    }
    std::string at(const std::string& relative) const { return base_ + "/" + relative; }
    void dir(const std::string& relative, mode_t mode, uid_t owner = 0, gid_t group = 0) {
        const std::string path = at(relative);
        fs::create_directory(path);
        ASSERT_EQ(::chown(path.c_str(), owner, group), 0);
        ASSERT_EQ(::chmod(path.c_str(), mode), 0);
    }
    void acl(const std::string& relative, const char* text) {
        acl_t acl = ::acl_from_text(text);
        ASSERT_NE(acl, nullptr) << text;
        if (::acl_set_file(at(relative).c_str(), ACL_TYPE_ACCESS, acl) != 0) {
            aclSupported_ = false;
        }
        ::acl_free(acl);
    }
    std::u16string folder(const char* relative) const {
        return Osb::Utf8ToUtf16(at(relative) + "/");
    }

    ScratchRoot root_;
    std::string base_;
    bool aclSupported_ = true;
};

// The kernel's answer, computed by a process that is the user: access() then judges by the real
// user, which is the user itself.
std::string KernelAnswers(const std::vector<std::string>& paths) {
    std::ostringstream out;
    for (const std::string& path : paths) {
        uint32_t code = Osb::Err::kSuccess;
        if (::access(path.c_str(), R_OK | X_OK) != 0) {
            code = Osb::Err::kAccessDenied;
            if (errno == ENOENT) {
                std::string parent = path;
                while (parent.size() > 1 && parent.back() == '/') parent.pop_back();
                parent.resize(parent.rfind('/'));
                struct stat st;
                code = ::stat(parent.c_str(), &st) == 0 ? Osb::Err::kFileNotFound
                                                        : Osb::Err::kPathNotFound;
            }
        }
        out << code << ' ';
    }
    return out.str();
}

std::string Codes(const std::vector<uint32_t>& codes) {
    std::ostringstream out;
    for (uint32_t code : codes) out << code << ' ';
    return out.str();
}

TEST_F(FolderAccessTest, DecisionsMatchTheKernelForAUserOfItsOwn) {
    const Row rows[] = {
        {"open to all", "open", 0},
        {"others may not", "root-only", 5},
        {"owned by the user", "mine", 0},
        {"owner bits decide for the owner", "mine-closed", 5},
        {"primary group", "group", 0},
        {"supplementary group", "supplementary", 0},
        {"a group of the user's with no rights denies", "group-denied", 5},
        {"a group the user is not in", "foreign-group", 5},
        {"search without read", "search-only", 5},
        {"read without search", "read-only", 5},
        {"search denied on an ancestor", "root-only/open-inside", 5},
        {"search alone on an ancestor is enough", "search-only/open-inside", 0},
        {"ACL user entry", "acl-user", 0},
        {"ACL user entry cut by the mask", "acl-masked", 5},
        {"ACL supplementary group entry", "acl-group", 0},
        {"ACL rights spread over two groups", "acl-split", 5},
        {"ACL owning group without rights beside a named group with them", "acl-groupobj", 0},
        {"missing name where the user may look", "missing", 2},
        {"missing folder on the way", "nothing/missing", 3},
        {"missing name behind a closed directory", "root-only/missing", 5},
        {"directory behind a closed directory", "root-only/open-inside", 5},
        {"file where the user may look", "file", 5},
        {"file behind a closed directory", "root-only/file", 5},
        {"link to an open directory", "link-open", 0},
        {"link to a closed directory", "link-closed", 5},
        {"link through a closed directory", "link-through", 5},
        {"dot-dot out of an open directory", "open/../mine", 0},
        {"dot-dot out of a closed directory", "root-only/../open", 5},
    };
    dir("open", 0755);
    dir("root-only", 0700);
    dir("root-only/open-inside", 0777);
    std::ofstream(at("root-only/file")) << "x";
    dir("mine", 0700, kUser, kGroup);
    dir("mine-closed", 0077, kUser, kGroup);
    dir("group", 0750, 0, kGroup);
    dir("supplementary", 0750, 0, kSupplementary);
    dir("group-denied", 0705, 0, kSupplementary);
    dir("foreign-group", 0750, 0, kOtherGroup);
    dir("search-only", 0711);
    dir("search-only/open-inside", 0755);
    dir("read-only", 0744);
    dir("acl-user", 0700);
    acl("acl-user", "u::rwx,u:61001:r-x,g::---,m::r-x,o::---");
    dir("acl-masked", 0700);
    acl("acl-masked", "u::rwx,u:61001:r-x,g::---,m::r--,o::---");
    dir("acl-group", 0700);
    acl("acl-group", "u::rwx,g::---,g:61002:r-x,m::rwx,o::---");
    dir("acl-split", 0700);
    acl("acl-split", "u::rwx,g::---,g:61001:r--,g:61002:--x,m::rwx,o::r-x");
    dir("acl-groupobj", 0700, 0, kGroup);
    acl("acl-groupobj", "u::rwx,g::---,g:61002:r-x,m::rwx,o::---");
    std::ofstream(at("file")) << "x";
    fs::create_directory_symlink(at("open"), at("link-open"));
    fs::create_directory_symlink(at("root-only"), at("link-closed"));
    fs::create_directory_symlink(at("root-only/open-inside"), at("link-through"));
    if (!aclSupported_) GTEST_SKIP() << "the scratch file system takes no ACLs";

    std::vector<std::u16string> folders;
    std::vector<std::string> paths;
    std::string expected;
    for (const Row& row : rows) {
        folders.push_back(folder(row.path));
        paths.push_back(at(row.path) + "/");
        expected += std::to_string(row.expected) + " ";
    }

    Osb::FolderAccess kernel(User());
    std::vector<uint32_t> byKernel;
    kernel.checkAll(folders, byKernel);
    ASSERT_TRUE(kernel.usedKernelForTesting()) << "this test runs as root and may switch";
    Osb::FolderAccess byHand(User(), Osb::FolderAccess::Method::kByHand);
    std::vector<uint32_t> manual;
    byHand.checkAll(folders, manual);
    ASSERT_FALSE(byHand.usedKernelForTesting());

    const ChildOutcome real =
        RunAsUser({kUser, kGroup, {kSupplementary}}, [&] { return KernelAnswers(paths); });
    if (real.cannotSwitch) GTEST_SKIP() << "cannot give up root here";
    ASSERT_EQ(real.status, 0) << real.output;
    // A service of a plain user cannot switch and falls back to the decision by hand.
    const ChildOutcome plain = RunAsUser({kServiceUser, kServiceUser, {}}, [&] {
        Osb::FolderAccess access(User());
        std::vector<uint32_t> codes;
        access.checkAll(folders, codes);
        return (access.usedKernelForTesting() ? "kernel " : "by hand ") + Codes(codes);
    });
    ASSERT_EQ(plain.status, 0) << plain.output;

    for (size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(rows[i].name);
        EXPECT_EQ(byKernel[i], rows[i].expected);
        EXPECT_EQ(manual[i], rows[i].expected);
    }
    EXPECT_EQ(real.output, expected);
    EXPECT_EQ(Codes(byKernel), expected);
    EXPECT_EQ(Codes(manual), expected);
    EXPECT_EQ(plain.output, "by hand " + expected);
}

// A peer whose credentials could not be read is judged by the "others" bits alone: never as the
// owner, never in a group, never as user 0.
TEST_F(FolderAccessTest, UnknownUserIsJudgedAsOthersOnly) {
    dir("others-may", 0705, 0, 0);
    dir("group-only", 0770, 0, 0);
    dir("nobody-owned", 0700, Osb::PeerIdentity::kNoId - 1, 0);
    const std::vector<std::u16string> folders = {folder("others-may"), folder("group-only"),
                                                 folder("nobody-owned")};
    for (auto method : {Osb::FolderAccess::Method::kAuto, Osb::FolderAccess::Method::kByHand}) {
        Osb::FolderAccess unknown{Osb::PeerIdentity{}, method};
        std::vector<uint32_t> codes;
        unknown.checkAll(folders, codes);
        EXPECT_EQ(codes, (std::vector<uint32_t>{0, 5, 5}));
        EXPECT_FALSE(unknown.usedKernelForTesting());
    }
}

// The switch is the calling thread's alone and is undone before the call returns.
TEST_F(FolderAccessTest, CredentialsComeBackAfterEachCheck) {
    dir("root-only", 0700);
    const std::vector<std::u16string> folders = {folder("root-only")};
    std::vector<gid_t> groupsBefore(static_cast<size_t>(::getgroups(0, nullptr)));
    ::getgroups(static_cast<int>(groupsBefore.size()), groupsBefore.data());
    Osb::FolderAccess access(User());
    std::vector<uint32_t> codes;
    access.checkAll(folders, codes);
    ASSERT_TRUE(access.usedKernelForTesting());
    EXPECT_EQ(codes, (std::vector<uint32_t>{5}));
    EXPECT_EQ(::syscall(SYS_setfsuid, -1), 0);
    EXPECT_EQ(::syscall(SYS_setfsgid, -1), 0);
    std::vector<gid_t> groupsAfter(static_cast<size_t>(::getgroups(0, nullptr)));
    ::getgroups(static_cast<int>(groupsAfter.size()), groupsAfter.data());
    EXPECT_EQ(groupsAfter, groupsBefore);
    // Root reads what only root may read again.
    EXPECT_EQ(::access(at("root-only").c_str(), R_OK | X_OK), 0);
    EXPECT_EQ(Osb::ErrorCode(), Osb::Err::kAccessDenied);
    EXPECT_EQ(Osb::ErrorText(Osb::ErrorCode()), u"Access is denied.");
}

}  // namespace
}  // namespace vigil_test
