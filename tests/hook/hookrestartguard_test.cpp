// The count of starts that re-installed stored groups and died early, as the next start reads it.
#include "core/model/hook/hookrestartguard.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "tests/support/testsupport.h"

namespace {

using namespace corvanetest;
using namespace std::chrono_literals;

const std::string kOtherPid = std::to_string(getpid() + 1);
const std::string kOwnState = " " + std::to_string(getpid()) + "\n";

TEST(HookRestartGuard, TheStartAfterTwoCrashedOnesLeavesTheGroupsOut) {
    const struct {
        std::string state;  // left by earlier starts; empty: no file
        bool goesAhead;
        std::string stateAfter;  // empty: no file
    } cases[] = {
        {"", true, "1" + kOwnState},
        {"1 " + kOtherPid, true, "2" + kOwnState},
        {"2 " + kOtherPid, false, ""},
        // This process counted itself already (another engine object of the same process).
        {"1" + kOwnState, true, "1" + kOwnState},
        {"garbage", true, "1" + kOwnState},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("state '" + c.state + "'");
        TempDir dir;
        const std::string path = dir / "count";
        if (!c.state.empty()) {
            WriteTextFile(path, c.state);
        }
        HookRestartGuard guard(path, 1h);
        EXPECT_EQ(guard.BeginReinstall(), c.goesAhead);
        EXPECT_TRUE(guard.BeginReinstall());  // a second call of the process counts nothing
        EXPECT_EQ(access(path.c_str(), F_OK) == 0 ? ReadTextFile(path) : "", c.stateAfter);
    }
}

// Staying up for the window, or shutting down cleanly, makes it a good start.
TEST(HookRestartGuard, AGoodStartForgetsTheCount) {
    TempDir dir;
    const std::string path = dir / "count";
    WriteTextFile(path, "1 " + kOtherPid);
    HookRestartGuard staysUp(path, 10ms);
    ASSERT_TRUE(staysUp.BeginReinstall());
    EXPECT_TRUE(WaitFor([&] { return access(path.c_str(), F_OK) != 0; }));

    WriteTextFile(path, "1 " + kOtherPid);
    {
        HookRestartGuard shutsDown(path, 1h);
        ASSERT_TRUE(shutsDown.BeginReinstall());
    }
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

}  // namespace
