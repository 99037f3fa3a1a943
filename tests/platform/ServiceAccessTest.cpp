// Who may touch a service through the manager: the files and the endpoint belong to root and the
// service's own user, whatever the umask of the starter, and a stranger's lock on one of the files
// costs a start a bounded wait and a clear error, never a hang.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "platform/SystemRoot.h"
#include "tests/platform/FakeServiceFixture.h"
#include "tests/support/RunAsUser.h"
#include "tests/support/ScopedUmask.h"

namespace {

using namespace Osb;
using vigil_test::PollUntil;

// Runs `body` in a child that has given up root for user and group 65534; its result as text.
vigil_test::ChildOutcome AsStranger(const std::function<int()>& body) {
    return vigil_test::RunAsUser({65534, 65534, {}}, [&] { return std::to_string(body()); });
}

// A process of user 65534 that opened `path` while it was 0644, as the manager used to make it,
// and holds a flock on it until the object goes.
class StrangerHoldingLock {
public:
    StrangerHoldingLock(const std::string& path, int operation) {
        int ready[2];
        int hold[2];
        if (pipe(ready) != 0 || pipe(hold) != 0) return;
        child_ = fork();
        if (child_ == 0) {
            close(ready[0]);
            close(hold[1]);
            char byte = 'D';  // could not give up root
            if (setgid(65534) == 0 && setuid(65534) == 0) {
                const int fd = open(path.c_str(), O_RDONLY);
                byte = fd >= 0 && flock(fd, operation | LOCK_NB) == 0 ? 'L' : 'F';
            }
            if (write(ready[1], &byte, 1) != 1) _exit(1);
            char ignored = 0;
            while (read(hold[0], &ignored, 1) > 0) {
            }
            _exit(0);
        }
        close(ready[1]);
        close(hold[0]);
        release_ = hold[1];
        if (child_ < 0 || read(ready[0], &outcome_, 1) != 1) outcome_ = 'F';
        close(ready[0]);
    }
    ~StrangerHoldingLock() { Release(); }
    void Release() {
        if (release_ >= 0) close(release_);
        release_ = -1;
        if (child_ > 0) waitpid(child_, nullptr, 0);
        child_ = -1;
    }
    bool locked() const { return outcome_ == 'L'; }
    bool cannotDropRoot() const { return outcome_ == 'D'; }

private:
    pid_t child_ = -1;
    int release_ = -1;
    char outcome_ = 'F';
};

class ServiceAccessTest : public vigil_test::FakeServiceTest {
protected:
    void SetUp() override {
        FakeServiceTest::SetUp();
        // The scratch root is 0700; strangers must reach the manager's folders below it.
        ASSERT_EQ(chmod(root_.path().c_str(), 0755), 0);
    }
    // The manager's files of the running "Fake".
    std::vector<std::string> files() {
        return {Scm::RecordPath("Fake"), Scm::StartLockPath("Fake"), Scm::LockPath("Fake"),
                Scm::LogPath("Fake"), Scm::EndpointPath("Fake")};
    }
    // Controls and a query by a stranger; 0 when every one is refused with 5, else the step.
    static int StrangerIsRefused() {
        SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
        SC_HANDLE service = OpenServiceW(manager, u"Fake", SERVICE_QUERY_STATUS);
        if (service == nullptr) return 10;
        int step = 11;
        for (const uint32_t control : {SERVICE_CONTROL_PAUSE, SERVICE_CONTROL_STOP}) {
            SERVICE_STATUS status = {};
            if (ControlService(service, control, &status) || ErrorCode() != Err::kAccessDenied) {
                return step;
            }
            ++step;
        }
        SERVICE_STATUS status = {};
        if (QueryServiceStatus(service, &status) || ErrorCode() != Err::kAccessDenied) return step;
        return 0;
    }
};

TEST_F(ServiceAccessTest, FilesAndEndpointAreTheOwnersAloneEvenUnderAnOpenUmask) {
    const mode_t previous = umask(0);
    const bool started = start();
    umask(previous);
    ASSERT_TRUE(started) << ErrorCode();
    ASSERT_TRUE(awaitState(SERVICE_RUNNING));

    for (const std::string& path : files()) {
        EXPECT_EQ(vigil_test::ModeOf(path.c_str()) & 077, 0) << path;
    }
    for (const std::string& folder : {Scm::RunFolder(), Scm::ServicesFolder(),
                                      root_ / "var/log/orvanta"}) {
        EXPECT_EQ(vigil_test::ModeOf(folder.c_str()) & 022, 0) << folder;
    }
    const std::vector<std::string> paths = files();
    const vigil_test::ChildOutcome result = AsStranger([&] {
        int step = 1;
        for (const std::string& path : paths) {
            // No descriptor, so no lock either; the socket refuses a connect the same way.
            for (const int access : {O_RDONLY, O_WRONLY}) {
                const int fd = open(path.c_str(), access | O_NONBLOCK);
                if (fd >= 0 || errno != EACCES) return step;
                ++step;
            }
        }
        return StrangerIsRefused() == 0 ? 0 : 50 + StrangerIsRefused();
    });
    if (result.cannotSwitch) GTEST_SKIP() << "cannot give up root here";
    EXPECT_EQ(result.output, "0") << "the failed step";
    // As a careless administrator might leave the endpoint: the service itself must still say no.
    ASSERT_EQ(chmod(Scm::EndpointPath("Fake").c_str(), 0666), 0);
    EXPECT_EQ(AsStranger([] { return StrangerIsRefused(); }).output, "0") << "the failed step";
    ASSERT_TRUE(syncLog());
    EXPECT_EQ(log().find("control 1"), std::string::npos) << "a stranger's stop reached the handler";
    EXPECT_EQ(log().find("control 2"), std::string::npos) << "a stranger's pause reached the handler";
    EXPECT_EQ(state(), SERVICE_RUNNING);
    // Root is still served.
    SERVICE_STATUS status = {};
    EXPECT_TRUE(ControlService(service_, SERVICE_CONTROL_INTERROGATE, &status)) << ErrorCode();
}

TEST_F(ServiceAccessTest, LooserFilesAndFoldersLeftFromBeforeAreTightened) {
    ASSERT_EQ(Osb::CreateDirectories(Scm::RunFolder()), 0u);
    ASSERT_EQ(Osb::CreateDirectories(root_ / "var/log/orvanta"), 0u);
    ASSERT_EQ(chmod(Scm::RunFolder().c_str(), 0777), 0);
    for (const std::string& path :
         {Scm::StartLockPath("Fake"), Scm::LockPath("Fake"), Scm::LogPath("Fake")}) {
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT, 0666);
        ASSERT_GE(fd, 0) << path;
        ASSERT_EQ(fchmod(fd, 0666), 0);
        close(fd);
    }
    ASSERT_EQ(chmod(Scm::RecordPath("Fake").c_str(), 0644), 0);
    ASSERT_TRUE(start()) << ErrorCode();
    ASSERT_TRUE(awaitState(SERVICE_RUNNING));
    for (const std::string& path : {Scm::RecordPath("Fake"), Scm::StartLockPath("Fake"),
                                    Scm::LockPath("Fake"), Scm::LogPath("Fake")}) {
        EXPECT_EQ(vigil_test::ModeOf(path.c_str()), 0600) << path;
    }
    EXPECT_EQ(vigil_test::ModeOf(Scm::RunFolder().c_str()), 0755);
}

TEST_F(ServiceAccessTest, StrangersLockOnAFileOpenedBeforeCostsTheStartABoundedWait) {
    struct Row {
        std::string path;
        int operation;
    };
    ASSERT_EQ(Osb::CreateDirectories(Scm::RunFolder()), 0u);
    const Row rows[] = {
        {Scm::StartLockPath("Fake"), LOCK_EX},
        {Scm::LockPath("Fake"), LOCK_SH},
        {Scm::LockPath("Fake"), LOCK_EX},
    };
    Scm::SetAnswerTimeoutForTesting(300);
    started_.push_back("Fake");
    for (const Row& row : rows) {
        const int fd = open(row.path.c_str(), O_WRONLY | O_CREAT, 0644);
        ASSERT_GE(fd, 0) << row.path;
        ASSERT_EQ(fchmod(fd, 0644), 0);
        close(fd);
        StrangerHoldingLock holder(row.path, row.operation);
        if (holder.cannotDropRoot()) GTEST_SKIP() << "cannot give up root here";
        ASSERT_TRUE(holder.locked()) << row.path << ": the stranger could not lock it";

        ::testing::internal::CaptureStderr();
        std::atomic<bool> done{false};
        std::atomic<bool> started{false};
        std::atomic<uint32_t> code{0};
        std::thread starter([&] {
            started = StartServiceW(service_, 0, nullptr);
            code = ErrorCode();
            done = true;
        });
        const bool returned = PollUntil([&] { return done.load(); }, std::chrono::seconds(15));
        holder.Release();  // lets a start that hangs go on, so the thread can be joined
        starter.join();
        const std::string text = ::testing::internal::GetCapturedStderr();
        EXPECT_TRUE(returned) << row.path << ": the start waited without limit";
        EXPECT_FALSE(started) << row.path;
        EXPECT_EQ(code.load(), Err::kServiceRequestTimeout) << row.path;
        EXPECT_NE(text.find(row.path), std::string::npos) << text;
        EXPECT_NE(text.find("1053"), std::string::npos) << text;
        EXPECT_EQ(state(), SERVICE_STOPPED) << row.path;
    }
    // Nobody holds anything now: the start goes through.
    Scm::SetAnswerTimeoutForTesting(30000);
    EXPECT_TRUE(StartServiceW(service_, 0, nullptr)) << ErrorCode();
    EXPECT_TRUE(awaitState(SERVICE_RUNNING));
}

TEST_F(ServiceAccessTest, QueryOfAnEndpointWithAFullBacklogEndsAtTheDeadline) {
    // A process that listens on the endpoint and never accepts, its backlog filled up.
    ASSERT_EQ(Osb::CreateDirectories(Scm::RunFolder()), 0u);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string path = Scm::EndpointPath("Fake");
    ASSERT_LT(path.size(), sizeof(address.sun_path));
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(listener, 0);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(listener, 0), 0);
    std::vector<int> waiting;
    for (int i = 0; i < 64; ++i) {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        const bool queued = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
        waiting.push_back(fd);
        if (!queued) break;
    }
    ASSERT_EQ(errno, EAGAIN) << "the backlog did not fill";

    Scm::SetAnswerTimeoutForTesting(300);
    std::atomic<bool> done{false};
    std::atomic<bool> answered{false};
    std::atomic<uint32_t> code{0};
    std::thread caller([&] {
        SERVICE_STATUS status = {};
        answered = QueryServiceStatus(service_, &status);
        code = ErrorCode();
        done = true;
    });
    const bool returned = PollUntil([&] { return done.load(); }, std::chrono::seconds(15));
    close(listener);  // wakes a caller that waits for room without limit
    caller.join();
    for (const int fd : waiting) close(fd);
    EXPECT_TRUE(returned) << "the query waited without limit";
    EXPECT_FALSE(answered);
    EXPECT_EQ(code.load(), Err::kServiceRequestTimeout);
}

}  // namespace
