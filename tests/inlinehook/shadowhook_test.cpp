// The C API's contract: initialisation once per process and its modes, the messages and the
// debug log. Behaviour fixed once per process runs in forked children.
#include "shadowhook.h"

#include <math.h>

#include <set>
#include <string>

#include "tests/inlinehook/inlinehooktest.h"

namespace {

using inlinehooktest::Code;
using inlinehooktest::Orig;
using inlinehooktest::PlusThousand;
using inlinehooktest::Symbol;
using inlinehooktest::Unary;

// It never pops its frame: in unique mode no frames are kept, so it runs on every call.
double PlusOne(double x) {
    return SHADOWHOOK_CALL_PREV(PlusOne, x) + 1.0;
}
void* const kPlusOne = reinterpret_cast<void*>(PlusOne);

// Each scenario in a child of its own, so each meets a process that never initialised.
TEST(ShadowhookInitTest, TheFirstInitialisationDecidesForTheProcess) {
    SKIP_IF_ENGINE_INITIALISED();
    struct Scenario {
        const char* name;
        int (*body)();
    } scenarios[] = {
        {"every call fails with UNINIT before init, and after an unknown mode, which fails for "
         "good",
         [] {
             void* cbrtAddress = Symbol("libm.so.6", "cbrt");
             CHILD_CHECK(shadowhook_get_init_errno() == SHADOWHOOK_ERRNO_UNINIT);
             void* orig = nullptr;
             CHILD_CHECK(shadowhook_hook_sym_addr(cbrtAddress, kPlusOne, &orig) == nullptr);
             CHILD_CHECK(shadowhook_get_errno() == SHADOWHOOK_ERRNO_UNINIT && orig == nullptr);
             CHILD_CHECK(!shadowhook_hook_sym_name("libm.so.6", "cbrt", kPlusOne, &orig));
             CHILD_CHECK(shadowhook_get_errno() == SHADOWHOOK_ERRNO_UNINIT);
             CHILD_CHECK(shadowhook_unhook(reinterpret_cast<void*>(1)) == -1);
             CHILD_CHECK(shadowhook_get_errno() == SHADOWHOOK_ERRNO_UNINIT);
             const int kInvalid = SHADOWHOOK_ERRNO_INVALID_ARG;
             CHILD_CHECK(shadowhook_init(static_cast<shadowhook_mode_t>(7), false) == kInvalid);
             CHILD_CHECK(shadowhook_init(SHADOWHOOK_MODE_SHARED, false) == kInvalid);
             CHILD_CHECK(shadowhook_get_init_errno() == kInvalid);
             CHILD_CHECK(!shadowhook_hook_sym_addr(cbrtAddress, kPlusOne, nullptr));
             CHILD_CHECK(shadowhook_get_errno() == SHADOWHOOK_ERRNO_UNINIT);
             CHILD_CHECK(reinterpret_cast<Unary>(cbrtAddress)(8.0) == 2.0);
             return 0;
         }},
        {"the first init decides; unique mode takes one hook per address, keeps no frames, and "
         "orig is the original",
         [] {
             CHILD_CHECK(shadowhook_init(SHADOWHOOK_MODE_UNIQUE, false) == SHADOWHOOK_ERRNO_OK);
             CHILD_CHECK(shadowhook_init(SHADOWHOOK_MODE_SHARED, true) == SHADOWHOOK_ERRNO_OK);
             CHILD_CHECK(shadowhook_get_mode() == SHADOWHOOK_MODE_UNIQUE);
             CHILD_CHECK(!shadowhook_get_debuggable());
             void* address = Symbol("libm.so.6", "cbrt");
             Unary function = reinterpret_cast<Unary>(address);
             void* first = shadowhook_hook_sym_addr(address, kPlusOne, nullptr);
             CHILD_CHECK(first != nullptr);
             void* orig = nullptr;
             CHILD_CHECK(shadowhook_hook_sym_addr(address, Code(PlusThousand), &orig) == nullptr);
             CHILD_CHECK(shadowhook_get_errno() == SHADOWHOOK_ERRNO_HOOK_DUP && orig == nullptr);
             for (int call = 0; call < 3; ++call) {
                 CHILD_CHECK(function(8.0) == 3.0);
             }
             CHILD_CHECK(shadowhook_unhook(first) == 0);
             void* second = shadowhook_hook_sym_addr(address, Code(PlusThousand), &orig);
             CHILD_CHECK(second != nullptr && function(8.0) == 1002.0);
             CHILD_CHECK(Orig<Unary>(&orig)(8.0) == 2.0);
             // Other addresses are independent.
             void* other = shadowhook_hook_sym_addr(Symbol("libm.so.6", "erf"), kPlusOne, nullptr);
             CHILD_CHECK(other != nullptr && shadowhook_unhook(other) == 0);
             CHILD_CHECK(shadowhook_unhook(second) == 0 && function(8.0) == 2.0);
             return 0;
         }},
    };
    for (const Scenario& scenario : scenarios) {
        EXPECT_TRUE(corvanetest::ChildSucceeded(corvanetest::RunInChild(scenario.body)))
            << scenario.name;
    }
}

using ShadowhookTest = inlinehooktest::SharedModeTest;

TEST_F(ShadowhookTest, EveryErrorNumberHasItsOwnMessage) {
    std::set<std::string> messages;
    for (int number = SHADOWHOOK_ERRNO_OK; number <= SHADOWHOOK_ERRNO_UNHOOK_NOTFOUND; ++number) {
        EXPECT_TRUE(messages.insert(shadowhook_to_errmsg(number)).second) << number;
    }
    EXPECT_EQ(0u, messages.count("unknown error number"));
    EXPECT_TRUE(messages.count(shadowhook_to_errmsg(-1)) == 0 &&
                messages.count(shadowhook_to_errmsg(SHADOWHOOK_ERRNO_UNHOOK_NOTFOUND + 1)) == 0);
}

// Silent unless debuggable. Also hooks by name, which finds the symbol in a loaded library.
TEST_F(ShadowhookTest, DebuggableLogsWhatTheEngineDoesAndWhy) {
    const std::string failure = std::string("shadowhook_unhook failed: 27 (") +
                                shadowhook_to_errmsg(SHADOWHOOK_ERRNO_UNHOOK_NOTFOUND);
    for (bool debuggable : {false, true}) {
        corvanetest::LogCapture log;
        shadowhook_set_debuggable(debuggable);
        void* stub = shadowhook_hook_sym_name("libm.so.6", "cbrt", Code(PlusThousand), nullptr);
        ASSERT_NE(nullptr, stub) << shadowhook_to_errmsg(shadowhook_get_errno());
        EXPECT_EQ(1007.0, reinterpret_cast<Unary>(Symbol("libm.so.6", "cbrt"))(343.0));
        ASSERT_EQ(0, shadowhook_unhook(stub));
        EXPECT_EQ(-1, shadowhook_unhook(stub));
        shadowhook_set_debuggable(false);
        EXPECT_EQ(debuggable, log.Count("", "corvane_inlinehook") > 0) << log.Dump();
        EXPECT_EQ(debuggable, log.Contains("hooked cbrt", "corvane_inlinehook"));
        EXPECT_EQ(debuggable, log.Contains("unhooked", "corvane_inlinehook"));
        EXPECT_EQ(debuggable, log.Contains(failure, "corvane_inlinehook"));
    }
}

}  // namespace
