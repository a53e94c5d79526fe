// The C API's contract: initialisation once per process and its modes, the not-initialised and
// invalid-argument errors, the per-thread error number, the messages and the debug log.
// Behaviour fixed once per process runs in forked children, one scenario each.
#include "shadowhook.h"

#include <math.h>

#include <set>
#include <string>
#include <thread>

#include "tests/inlinehook/inlinehooktest.h"

namespace {

using corvanetest::ChildSucceeded;
using corvanetest::RunInChild;
using inlinehooktest::Symbol;

using Unary = double (*)(double);

void* g_origA = nullptr;
double ReplacementA(double x) {
    return inlinehooktest::Orig<Unary>(&g_origA)(x) + 1.0;
}
void* g_origB = nullptr;
double ReplacementB(double x) {
    return inlinehooktest::Orig<Unary>(&g_origB)(x) + 2.0;
}

void* const kReplacementA = reinterpret_cast<void*>(ReplacementA);
void* const kReplacementB = reinterpret_cast<void*>(ReplacementB);

// A child can only test a first initialisation if the parent never initialised: true under
// CTest, where every test case runs in its own process.
#define SKIP_IF_PARENT_INITIALISED()                                                  \
    do {                                                                              \
        if (shadowhook_get_init_errno() != SHADOWHOOK_ERRNO_UNINIT) {                 \
            GTEST_SKIP() << "the engine is already initialised in this process; run " \
                            "this case alone (as CTest does)";                        \
        }                                                                             \
    } while (0)

TEST(ShadowhookInitTest, EveryCallFailsWithUninitBeforeInit) {
    SKIP_IF_PARENT_INITIALISED();
    int status = RunInChild([]() {
        void* cbrtAddress = Symbol("libm.so.6", "cbrt");
        CHILD_CHECK(shadowhook_get_init_errno() == SHADOWHOOK_ERRNO_UNINIT);
        void* orig = nullptr;
        CHILD_CHECK(shadowhook_hook_sym_addr(cbrtAddress, kReplacementA, &orig) == nullptr);
        CHILD_CHECK(shadowhook_get_errno() == SHADOWHOOK_ERRNO_UNINIT);
        CHILD_CHECK(orig == nullptr);
        CHILD_CHECK(shadowhook_hook_sym_name("libm.so.6", "cbrt", kReplacementA, &orig) == nullptr);
        CHILD_CHECK(shadowhook_get_errno() == SHADOWHOOK_ERRNO_UNINIT);
        CHILD_CHECK(shadowhook_unhook(reinterpret_cast<void*>(1)) == -1);
        CHILD_CHECK(shadowhook_get_errno() == SHADOWHOOK_ERRNO_UNINIT);
        CHILD_CHECK(reinterpret_cast<Unary>(cbrtAddress)(8.0) == 2.0);
        return 0;
    });
    EXPECT_TRUE(ChildSucceeded(status));
}

TEST(ShadowhookInitTest, OnlyTheFirstInitCountsAndLaterCallsReturnItsResult) {
    SKIP_IF_PARENT_INITIALISED();
    int status = RunInChild([]() {
        CHILD_CHECK(shadowhook_init(SHADOWHOOK_MODE_UNIQUE, false) == SHADOWHOOK_ERRNO_OK);
        CHILD_CHECK(shadowhook_init(SHADOWHOOK_MODE_SHARED, true) == SHADOWHOOK_ERRNO_OK);
        CHILD_CHECK(shadowhook_get_mode() == SHADOWHOOK_MODE_UNIQUE);
        CHILD_CHECK(!shadowhook_get_debuggable());
        CHILD_CHECK(shadowhook_get_init_errno() == SHADOWHOOK_ERRNO_OK);
        return 0;
    });
    EXPECT_TRUE(ChildSucceeded(status));
}

TEST(ShadowhookInitTest, AnUnknownModeFailsForGood) {
    SKIP_IF_PARENT_INITIALISED();
    int status = RunInChild([]() {
        CHILD_CHECK(shadowhook_init(static_cast<shadowhook_mode_t>(7), false) ==
                    SHADOWHOOK_ERRNO_INVALID_ARG);
        CHILD_CHECK(shadowhook_init(SHADOWHOOK_MODE_SHARED, false) == SHADOWHOOK_ERRNO_INVALID_ARG);
        CHILD_CHECK(shadowhook_get_init_errno() == SHADOWHOOK_ERRNO_INVALID_ARG);
        CHILD_CHECK(shadowhook_hook_sym_addr(Symbol("libm.so.6", "cbrt"), kReplacementA, nullptr) ==
                    nullptr);
        CHILD_CHECK(shadowhook_get_errno() == SHADOWHOOK_ERRNO_UNINIT);
        return 0;
    });
    EXPECT_TRUE(ChildSucceeded(status));
}

TEST(ShadowhookInitTest, UniqueModeTakesOneHookPerAddress) {
    SKIP_IF_PARENT_INITIALISED();
    int status = RunInChild([]() {
        CHILD_CHECK(shadowhook_init(SHADOWHOOK_MODE_UNIQUE, false) == SHADOWHOOK_ERRNO_OK);
        void* address = Symbol("libm.so.6", "cbrt");
        Unary function = reinterpret_cast<Unary>(address);
        void* first = shadowhook_hook_sym_addr(address, kReplacementA, &g_origA);
        CHILD_CHECK(first != nullptr);
        void* orig = nullptr;
        CHILD_CHECK(shadowhook_hook_sym_addr(address, kReplacementB, &orig) == nullptr);
        CHILD_CHECK(shadowhook_get_errno() == SHADOWHOOK_ERRNO_HOOK_DUP);
        CHILD_CHECK(orig == nullptr);
        CHILD_CHECK(function(8.0) == 3.0);
        CHILD_CHECK(shadowhook_unhook(first) == 0);
        void* second = shadowhook_hook_sym_addr(address, kReplacementB, &g_origB);
        CHILD_CHECK(second != nullptr);
        CHILD_CHECK(function(8.0) == 4.0);
        // Other addresses are independent.
        void* other = shadowhook_hook_sym_addr(Symbol("libm.so.6", "erf"), kReplacementA, &g_origA);
        CHILD_CHECK(other != nullptr);
        CHILD_CHECK(shadowhook_unhook(other) == 0);
        CHILD_CHECK(shadowhook_unhook(second) == 0);
        CHILD_CHECK(function(8.0) == 2.0);
        return 0;
    });
    EXPECT_TRUE(ChildSucceeded(status));
}

class ShadowhookTest : public ::testing::Test {
  protected:
    void SetUp() override { inlinehooktest::InitShared(); }
};

TEST_F(ShadowhookTest, NullArgumentsAreInvalid) {
    void* address = Symbol("libm.so.6", "cbrt");
    struct Case {
        const char* name;
        std::function<bool()> call;  // true when the call reported failure
    } cases[] = {
        {"hook_sym_addr: null address",
         [] { return shadowhook_hook_sym_addr(nullptr, kReplacementA, &g_origA) == nullptr; }},
        {"hook_sym_addr: null replacement",
         [&] { return shadowhook_hook_sym_addr(address, nullptr, &g_origA) == nullptr; }},
        {"hook_sym_name: null library",
         [] {
             return shadowhook_hook_sym_name(nullptr, "cbrt", kReplacementA, &g_origA) == nullptr;
         }},
        {"hook_sym_name: null symbol",
         [] {
             return shadowhook_hook_sym_name("libm.so.6", nullptr, kReplacementA, &g_origA) ==
                    nullptr;
         }},
        {"hook_sym_name: null replacement",
         [] {
             return shadowhook_hook_sym_name("libm.so.6", "cbrt", nullptr, &g_origA) == nullptr;
         }},
        {"unhook: null stub", [] { return shadowhook_unhook(nullptr) == -1; }},
    };
    for (const Case& c : cases) {
        EXPECT_TRUE(c.call()) << c.name;
        EXPECT_EQ(SHADOWHOOK_ERRNO_INVALID_ARG, shadowhook_get_errno()) << c.name;
    }
    EXPECT_EQ(2.0, reinterpret_cast<Unary>(address)(8.0));
}

TEST_F(ShadowhookTest, OrigIsOptional) {
    void* address = Symbol("libm.so.6", "fabs");
    // A replacement that does not need the original.
    void* stub = shadowhook_hook_sym_addr(
        address, reinterpret_cast<void*>(+[](double) { return -1.0; }), nullptr);
    ASSERT_NE(nullptr, stub) << shadowhook_to_errmsg(shadowhook_get_errno());
    EXPECT_EQ(-1.0, reinterpret_cast<Unary>(address)(5.0));
    EXPECT_EQ(0, shadowhook_unhook(stub));
    EXPECT_EQ(5.0, reinterpret_cast<Unary>(address)(-5.0));
}

TEST_F(ShadowhookTest, UnknownOrRemovedStubsAreNotFound) {
    void* stub = shadowhook_hook_sym_addr(Symbol("libm.so.6", "cbrt"), kReplacementA, &g_origA);
    ASSERT_NE(nullptr, stub);
    EXPECT_EQ(SHADOWHOOK_ERRNO_OK, shadowhook_get_errno());
    EXPECT_EQ(0, shadowhook_unhook(stub));
    EXPECT_EQ(SHADOWHOOK_ERRNO_OK, shadowhook_get_errno());
    for (void* unknown :
         {stub, reinterpret_cast<void*>(0xdeadbeef), static_cast<void*>(&g_origA)}) {
        EXPECT_EQ(-1, shadowhook_unhook(unknown));
        EXPECT_EQ(SHADOWHOOK_ERRNO_UNHOOK_NOTFOUND, shadowhook_get_errno());
    }
}

TEST_F(ShadowhookTest, StubsAreNeverReused) {
    void* address = Symbol("libm.so.6", "cbrt");
    std::set<void*> stubs;
    for (int i = 0; i < 100; ++i) {
        void* stub = shadowhook_hook_sym_addr(address, kReplacementA, &g_origA);
        ASSERT_NE(nullptr, stub);
        EXPECT_TRUE(stubs.insert(stub).second);
        ASSERT_EQ(0, shadowhook_unhook(stub));
    }
}

TEST_F(ShadowhookTest, TheErrorNumberBelongsToTheCallingThread) {
    EXPECT_EQ(nullptr, shadowhook_hook_sym_addr(nullptr, kReplacementA, nullptr));
    ASSERT_EQ(SHADOWHOOK_ERRNO_INVALID_ARG, shadowhook_get_errno());
    int otherThread = -1;
    std::thread([&] {
        void* stub = shadowhook_hook_sym_addr(Symbol("libm.so.6", "cbrt"), kReplacementA, &g_origA);
        otherThread = shadowhook_get_errno();
        shadowhook_unhook(stub);
    }).join();
    EXPECT_EQ(SHADOWHOOK_ERRNO_OK, otherThread);
    EXPECT_EQ(SHADOWHOOK_ERRNO_INVALID_ARG, shadowhook_get_errno());
}

TEST_F(ShadowhookTest, EveryErrorNumberHasItsOwnMessage) {
    std::set<std::string> messages;
    for (int number = SHADOWHOOK_ERRNO_OK; number <= SHADOWHOOK_ERRNO_UNHOOK_NOTFOUND; ++number) {
        std::string message = shadowhook_to_errmsg(number);
        EXPECT_NE("unknown error number", message) << number;
        EXPECT_TRUE(messages.insert(message).second) << number << ": " << message;
    }
    for (int number : {-1, SHADOWHOOK_ERRNO_UNHOOK_NOTFOUND + 1, 1000}) {
        EXPECT_STREQ("unknown error number", shadowhook_to_errmsg(number));
    }
}

TEST_F(ShadowhookTest, DebuggableLogsWhatTheEngineDoesAndWhy) {
    void* address = Symbol("libm.so.6", "cbrt");
    corvanetest::LogCapture log;
    shadowhook_set_debuggable(false);
    void* quiet = shadowhook_hook_sym_addr(address, kReplacementA, &g_origA);
    ASSERT_NE(nullptr, quiet);
    ASSERT_EQ(0, shadowhook_unhook(quiet));
    EXPECT_EQ(0, log.Count("", "corvane_inlinehook")) << log.Dump();

    shadowhook_set_debuggable(true);
    EXPECT_TRUE(shadowhook_get_debuggable());
    void* stub = shadowhook_hook_sym_addr(address, kReplacementA, &g_origA);
    ASSERT_NE(nullptr, stub);
    ASSERT_EQ(0, shadowhook_unhook(stub));
    EXPECT_EQ(-1, shadowhook_unhook(stub));
    shadowhook_set_debuggable(false);
    EXPECT_TRUE(log.Contains("hooked cbrt", "corvane_inlinehook")) << log.Dump();
    EXPECT_TRUE(log.Contains("unhooked", "corvane_inlinehook")) << log.Dump();
    EXPECT_TRUE(log.Contains(std::string("shadowhook_unhook failed: 27 (") +
                                 shadowhook_to_errmsg(SHADOWHOOK_ERRNO_UNHOOK_NOTFOUND),
                             "corvane_inlinehook"))
        << log.Dump();
}

}  // namespace
