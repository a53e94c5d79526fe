// The disk is full: the probe history and the hook database cannot be stored, each save logs its
// failure, and the service goes on; once there is room again the next start stores both.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tests/support/supervisedservice.h"

namespace {

using corvanetest::SupervisedService;

constexpr const char* kDataDir = "data/vendor/camera";
constexpr const char* kHistory = "data/vendor/camera/probe_messages.json";

// Puts a small tmpfs over a directory for this process and its children only (a mount namespace
// of their own), and fills it; gone with the process, or undone when this goes out of scope.
class FullDisk {
  public:
    explicit FullDisk(const std::string& dir) : m_filler(dir + "/filler") {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=64k") != 0) {
            error = strerror(errno);
            return;
        }
        m_dir = dir;
        int fd = open(m_filler.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        char block[4096] = {};
        while (fd >= 0 && write(fd, block, sizeof(block)) > 0) {
        }
        close(fd);
    }
    ~FullDisk() {
        if (!m_dir.empty()) {
            umount2(m_dir.c_str(), MNT_DETACH);
        }
    }
    void MakeRoom() { unlink(m_filler.c_str()); }
    std::string error;  // why it could not be mounted; empty when it was

  private:
    std::string m_filler, m_dir;
};

TEST(ProbeHistoryFaults, AFullDiskLosesTheHistoryAndTheDatabaseUntilThereIsRoomAgain) {
    SupervisedService service;
    FullDisk disk(service.Path(kDataDir));
    if (!disk.error.empty()) {
        GTEST_SKIP() << "no file system of limited size can be mounted here: " << disk.error;
    }
    service.Start();
    ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    for (const std::string line : {
             "Error: could not write data/vendor/camera/probe_messages.json.",
             ": No space left on device",
             "Failed to write file: data/vendor/camera/probe_messages.json",
             "Failed to create table: create table if not exists hook_group(",
             "error message: database or disk is full",
         }) {
        EXPECT_TRUE(service.WaitForLog(line)) << line << "\n" << service.Log();
    }
    EXPECT_FALSE(service.sysroot().Exists(kHistory));
    // Hooks still work; only their state is not kept.
    EXPECT_EQ(service.Vxcdb({"corvane", "--inject", "sensor_i2c_fault"}).exitCode, 0);

    disk.MakeRoom();
    service.Vxcdb({"corvane", "--signal", "1"});
    ASSERT_TRUE(service.WaitForLog("camera service died by signal 1, restarting")) << service.Log();
    ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    EXPECT_TRUE(corvanetest::WaitFor([&] {
        return service.sysroot().ReadFile(kHistory).find("imx766_wide_i") != std::string::npos;
    })) << service.Log();
    EXPECT_TRUE(service.sysroot().Exists("data/vendor/camera/hook.db"));
    EXPECT_EQ(service.Vxcdb({"corvane", "--inject", "motion_fault", "fast"}).exitCode, 0);
    EXPECT_TRUE(service.Stop()) << service.Log();
}

}  // namespace
