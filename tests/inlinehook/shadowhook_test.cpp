// The C API's contract: initialisation once per process and its modes, the not-initialised and
// invalid-argument errors, the per-thread error number, the messages and the debug log.
// Behaviour fixed once per process runs in forked children, one scenario each.
#include "shadowhook.h"

#include <math.h>

#include <functional>
#include <set>
#include <string>
#include <thread>

#include "tests/inlinehook/inlinehooktest.h"

namespace {

using inlinehooktest::Symbol;
using inlinehooktest::Unary;

void* g_origA = nullptr;
double ReplacementA(double x) {
    SHADOWHOOK_STACK_SCOPE();
    return SHADOWHOOK_CALL_PREV(ReplacementA, x) + 1.0;
}
void* g_origB = nullptr;
double ReplacementB(double x) {
    SHADOWHOOK_STACK_SCOPE();
    return SHADOWHOOK_CALL_PREV(ReplacementB, x) + 2.0;
}
double MinusOne(double) {
    SHADOWHOOK_POP_STACK();
    return -1.0;
}

void* const kReplacementA = reinterpret_cast<void*>(ReplacementA);
void* const kReplacementB = reinterpret_cast<void*>(ReplacementB);

// Each scenario in a child of its own, so each meets a process that never initialised.
TEST(ShadowhookInitTest, TheFirstInitialisationDecidesForTheProcess) {
    SKIP_IF_ENGINE_INITIALISED();
    struct Scenario {
        const char* name;
        int (*body)();
    } scenarios[] = {
        {"every call fails with UNINIT before init",
         [] {
             void* cbrtAddress = Symbol("libm.so.6", "cbrt");
             CHILD_CHECK(shadowhook_get_init_errno() == SHADOWHOOK_ERRNO_UNINIT);
             void* orig = nullptr;
             CHILD_CHECK(shadowhook_hook_sym_addr(cbrtAddress, kReplacementA, &orig) == nullptr);
             CHILD_CHECK(shadowhook_get_errno() == SHADOWHOOK_ERRNO_UNINIT);
             CHILD_CHECK(orig == nullptr);
             CHILD_CHECK(shadowhook_hook_sym_name("libm.so.6", "cbrt", kReplacementA, &orig) ==
                         nullptr);
             CHILD_CHECK(shadowhook_get_errno() == SHADOWHOOK_ERRNO_UNINIT);
             CHILD_CHECK(shadowhook_unhook(reinterpret_cast<void*>(1)) == -1);
             CHILD_CHECK(shadowhook_get_errno() == SHADOWHOOK_ERRNO_UNINIT);
             CHILD_CHECK(reinterpret_cast<Unary>(cbrtAddress)(8.0) == 2.0);
             return 0;
         }},
        {"only the first init counts and later calls return its result",
         [] {
             CHILD_CHECK(shadowhook_init(SHADOWHOOK_MODE_UNIQUE, false) == SHADOWHOOK_ERRNO_OK);
             CHILD_CHECK(shadowhook_init(SHADOWHOOK_MODE_SHARED, true) == SHADOWHOOK_ERRNO_OK);
             CHILD_CHECK(shadowhook_get_mode() == SHADOWHOOK_MODE_UNIQUE);
             CHILD_CHECK(!shadowhook_get_debuggable());
             CHILD_CHECK(shadowhook_get_init_errno() == SHADOWHOOK_ERRNO_OK);
             return 0;
         }},
        {"an unknown mode fails for good",
         [] {
             CHILD_CHECK(shadowhook_init(static_cast<shadowhook_mode_t>(7), false) ==
                         SHADOWHOOK_ERRNO_INVALID_ARG);
             CHILD_CHECK(shadowhook_init(SHADOWHOOK_MODE_SHARED, false) ==
                         SHADOWHOOK_ERRNO_INVALID_ARG);
             CHILD_CHECK(shadowhook_get_init_errno() == SHADOWHOOK_ERRNO_INVALID_ARG);
             CHILD_CHECK(shadowhook_hook_sym_addr(Symbol("libm.so.6", "cbrt"), kReplacementA,
                                                  nullptr) == nullptr);
             CHILD_CHECK(shadowhook_get_errno() == SHADOWHOOK_ERRNO_UNINIT);
             return 0;
         }},
        {"unique mode takes one hook per address",
         [] {
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
             void* other =
                 shadowhook_hook_sym_addr(Symbol("libm.so.6", "erf"), kReplacementA, &g_origA);
             CHILD_CHECK(other != nullptr);
             CHILD_CHECK(shadowhook_unhook(other) == 0);
             CHILD_CHECK(shadowhook_unhook(second) == 0);
             CHILD_CHECK(function(8.0) == 2.0);
             return 0;
         }},
    };
    for (const Scenario& scenario : scenarios) {
        EXPECT_TRUE(corvanetest::ChildSucceeded(corvanetest::RunInChild(scenario.body)))
            << scenario.name;
    }
}

using ShadowhookTest = inlinehooktest::SharedModeTest;

TEST_F(ShadowhookTest, InvalidCallsFailWithTheirErrorNumber) {
    void* address = Symbol("libm.so.6", "cbrt");
    void* removed = shadowhook_hook_sym_addr(address, kReplacementA, &g_origA);
    ASSERT_NE(nullptr, removed);
    ASSERT_EQ(0, shadowhook_unhook(removed));
    const int kInvalid = SHADOWHOOK_ERRNO_INVALID_ARG;
    const int kNotFound = SHADOWHOOK_ERRNO_UNHOOK_NOTFOUND;
    struct Case {
        const char* name;
        std::function<bool()> call;  // true when the call reported failure
        int error;
    } cases[] = {
        {"hook_sym_addr: null address",
         [] { return shadowhook_hook_sym_addr(nullptr, kReplacementA, &g_origA) == nullptr; },
         kInvalid},
        {"hook_sym_addr: null replacement",
         [&] { return shadowhook_hook_sym_addr(address, nullptr, &g_origA) == nullptr; }, kInvalid},
        {"hook_sym_name: null library",
         [] {
             return shadowhook_hook_sym_name(nullptr, "cbrt", kReplacementA, &g_origA) == nullptr;
         },
         kInvalid},
        {"hook_sym_name: null symbol",
         [] {
             return shadowhook_hook_sym_name("libm.so.6", nullptr, kReplacementA, &g_origA) ==
                    nullptr;
         },
         kInvalid},
        {"hook_sym_name: null replacement",
         [] { return shadowhook_hook_sym_name("libm.so.6", "cbrt", nullptr, &g_origA) == nullptr; },
         kInvalid},
        {"unhook: null stub", [] { return shadowhook_unhook(nullptr) == -1; }, kInvalid},
        {"unhook: a removed stub", [&] { return shadowhook_unhook(removed) == -1; }, kNotFound},
        {"unhook: an address never handed out",
         [] { return shadowhook_unhook(reinterpret_cast<void*>(0xdeadbeef)) == -1; }, kNotFound},
        {"unhook: an orig slot", [] { return shadowhook_unhook(&g_origA) == -1; }, kNotFound},
    };
    for (const Case& c : cases) {
        EXPECT_TRUE(c.call()) << c.name;
        EXPECT_EQ(c.error, shadowhook_get_errno()) << c.name;
    }
    EXPECT_EQ(2.0, reinterpret_cast<Unary>(address)(8.0));
}

TEST_F(ShadowhookTest, OrigIsOptional) {
    void* address = Symbol("libm.so.6", "fabs");
    // A replacement that does not need the original.
    void* stub = shadowhook_hook_sym_addr(address, reinterpret_cast<void*>(MinusOne), nullptr);
    ASSERT_NE(nullptr, stub) << shadowhook_to_errmsg(shadowhook_get_errno());
    EXPECT_EQ(-1.0, reinterpret_cast<Unary>(address)(5.0));
    EXPECT_EQ(0, shadowhook_unhook(stub));
    EXPECT_EQ(5.0, reinterpret_cast<Unary>(address)(-5.0));
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
