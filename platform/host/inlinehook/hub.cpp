// Shared-mode chains and the per-thread frame stack behind SHADOWHOOK_CALL_PREV,
// SHADOWHOOK_POP_STACK, SHADOWHOOK_ALLOW_REENTRANT and SHADOWHOOK_RETURN_ADDRESS.
#include "hub.h"

#include <android/log.h>
#include <stdlib.h>

#include "hooklog.h"
#include "shadowhook.h"

#define SHADOWHOOK_API extern "C" __attribute__((visibility("default")))

namespace corvane::inlinehook {

namespace {

// Replacements one thread can be inside at once, across all hooked functions. Deeper nesting runs
// the originals: a fixed array keeps the hub free of allocation, which a hooked allocator could
// not survive.
constexpr size_t kMaxFrames = 16;
// Longest walk along a chain. Chains are short; the bound only guards against a loop built by
// node reuse while a thread stood on a removed node for longer than the grace period.
constexpr size_t kMaxWalk = 4096;

struct Frame {
    Hub* hub;
    uintptr_t returnAddress;  // the hooked function's caller, the replacement's return address
    bool reentrant;
};

// Trivially constructible and destructible, so that no thread-exit handler or lazy
// initialisation runs for it: a thread that exits inside a replacement leaves nothing behind.
struct FrameStack {
    size_t count;
    Frame frames[kMaxFrames];
};

thread_local FrameStack t_frames;

std::atomic<Hub*> g_hubs{nullptr};

// The frame of the replacement that returns to `returnAddress`, searched from the newest.
Frame* FindFrame(uintptr_t returnAddress) {
    FrameStack& stack = t_frames;
    for (size_t i = stack.count; i > 0; --i) {
        Frame& frame = stack.frames[i - 1];
        if (frame.hub != nullptr && frame.returnAddress == returnAddress) {
            return &frame;
        }
    }
    return nullptr;
}

}  // namespace

Hub::Hub(uintptr_t orig) : m_orig(orig) {
    m_nextHub = g_hubs.load(std::memory_order_relaxed);
    g_hubs.store(this, std::memory_order_release);  // hubs are made under the engine mutex
}

void Hub::Add(uintptr_t proxy, std::chrono::milliseconds gracePeriod) {
    Node* node = nullptr;
    const bool reuse =
        !m_retired.empty() &&
        std::chrono::steady_clock::now() - m_retired.front()->retiredAt >= gracePeriod;
    if (reuse) {
        node = m_retired.front();
        m_retired.pop_front();
        node->removal.store(0, std::memory_order_release);  // no longer a removed node
    } else {
        node = new Node();
    }
    node->proxy.store(proxy, std::memory_order_relaxed);
    node->next.store(m_head.load(std::memory_order_relaxed), std::memory_order_relaxed);
    node->enabled.store(true, std::memory_order_relaxed);
    if (!reuse) {
        // Published whole: a thread searching every node for a removed replacement must never
        // meet one whose replacement is set and whose way on is not yet.
        node->allNext = m_allNodes.load(std::memory_order_relaxed);
        m_allNodes.store(node, std::memory_order_release);
        ++m_nodesAllocated;
    }
    m_head.store(node, std::memory_order_release);
}

bool Hub::Remove(uintptr_t proxy) {
    std::atomic<Node*>* link = &m_head;
    for (Node* node = m_head.load(std::memory_order_relaxed); node != nullptr;
         node = node->next.load(std::memory_order_relaxed)) {
        if (node->proxy.load(std::memory_order_relaxed) == proxy) {
            // Marked removed before anything else: a thread inside it that no longer finds it in
            // the chain must find it among the removed nodes.
            node->removal.store(++m_removals, std::memory_order_release);
            // Disabled next: a thread already standing in front of it skips it from now on.
            node->enabled.store(false, std::memory_order_release);
            link->store(node->next.load(std::memory_order_relaxed), std::memory_order_release);
            node->retiredAt = std::chrono::steady_clock::now();
            m_retired.push_back(node);
            return true;
        }
        link = &node->next;
    }
    return false;
}

inline uintptr_t Hub::FirstEnabledFrom(const Node* node) const {
    for (size_t steps = 0; node != nullptr && steps < kMaxWalk; ++steps) {
        if (node->enabled.load(std::memory_order_acquire)) {
            uintptr_t proxy = node->proxy.load(std::memory_order_relaxed);
            if (proxy != 0) {
                return proxy;
            }
        }
        node = node->next.load(std::memory_order_acquire);
    }
    return 0;
}

inline uintptr_t Hub::First() const {
    return FirstEnabledFrom(m_head.load(std::memory_order_acquire));
}

bool Hub::Next(uintptr_t proxy, uintptr_t* next) const {
    return NextLive(proxy, next) || NextRemoved(proxy, next);
}

inline bool Hub::NextLive(uintptr_t proxy, uintptr_t* next) const {
    size_t steps = 0;
    for (const Node* node = m_head.load(std::memory_order_acquire);
         node != nullptr && steps < kMaxWalk;
         node = node->next.load(std::memory_order_acquire), ++steps) {
        if (node->proxy.load(std::memory_order_relaxed) == proxy) {
            uintptr_t older = FirstEnabledFrom(node->next.load(std::memory_order_acquire));
            *next = older != 0 ? older : m_orig;
            return true;
        }
    }
    return false;
}

bool Hub::NextRemoved(uintptr_t proxy, uintptr_t* next) const {
    // Removed while it ran: its node still leads on to what was older than it. A replacement
    // added and removed again leaves a node each time, whose chains may be long gone; the thread
    // stands on the one removed last, so that one decides.
    const Node* latest = nullptr;
    uint64_t latestRemoval = 0;  // nodes never removed are live, found by NextLive
    for (const Node* node = m_allNodes.load(std::memory_order_acquire); node != nullptr;
         node = node->allNext) {
        uint64_t removal = node->removal.load(std::memory_order_acquire);
        if (removal > latestRemoval && node->proxy.load(std::memory_order_relaxed) == proxy) {
            latest = node;
            latestRemoval = removal;
        }
    }
    if (latest == nullptr) {
        return false;
    }
    uintptr_t older = FirstEnabledFrom(latest->next.load(std::memory_order_acquire));
    *next = older != 0 ? older : m_orig;
    return true;
}

bool Hub::FindNext(uintptr_t proxy, uintptr_t* next) {
    // Live chains first: a replacement removed from one function may be live on another.
    for (bool removed : {false, true}) {
        for (const Hub* hub = g_hubs.load(std::memory_order_acquire); hub != nullptr;
             hub = hub->m_nextHub) {
            if (removed ? hub->NextRemoved(proxy, next) : hub->NextLive(proxy, next)) {
                return true;
            }
        }
    }
    return false;
}

}  // namespace corvane::inlinehook

using corvane::inlinehook::FindFrame;
using corvane::inlinehook::Frame;
using corvane::inlinehook::FrameStack;
using corvane::inlinehook::Hub;
using corvane::inlinehook::kMaxFrames;
using corvane::inlinehook::t_frames;

extern "C" uintptr_t CorvaneHubPush(Hub* hub, uintptr_t returnAddress) {
    uintptr_t first = hub->First();
    if (first == 0) {
        return hub->orig();
    }
    FrameStack& stack = t_frames;
    size_t count = stack.count;
    for (size_t i = 0; i < count; ++i) {
        const Frame& frame = stack.frames[i];
        if (frame.hub == hub && !frame.reentrant) {
            return hub->orig();  // already inside a replacement of this function
        }
    }
    if (count == kMaxFrames) {
        return hub->orig();
    }
    // The slot is claimed before it is filled: a signal handler running a hooked function in
    // between pushes above it instead of overwriting it.
    stack.frames[count].hub = nullptr;
    stack.count = count + 1;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    stack.frames[count].returnAddress = returnAddress;
    stack.frames[count].reentrant = false;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    stack.frames[count].hub = hub;
    return first;
}

SHADOWHOOK_API void* shadowhook_get_prev_func(void* func) {
    uintptr_t proxy = reinterpret_cast<uintptr_t>(func);
    uintptr_t next = 0;
    FrameStack& stack = t_frames;
    size_t count = stack.count;
    // The usual case: the newest frame is the caller's, and it is still in the chain.
    if (count > 0 && stack.frames[count - 1].hub != nullptr &&
        stack.frames[count - 1].hub->NextLive(proxy, &next)) {
        return reinterpret_cast<void*>(next);
    }
    for (size_t i = count; i > 0; --i) {
        const Hub* hub = stack.frames[i - 1].hub;
        if (hub != nullptr && hub->Next(proxy, &next)) {
            return reinterpret_cast<void*>(next);
        }
    }
    // Unique mode, or a replacement called other than through its hook.
    if (Hub::FindNext(proxy, &next)) {
        return reinterpret_cast<void*>(next);
    }
    // Nothing callable exists; returning null would crash at an address that says nothing.
    __android_log_print(ANDROID_LOG_FATAL, corvane::inlinehook::kLogTag,
                        "shadowhook_get_prev_func: %p has never been installed as a replacement",
                        func);
    abort();
}

SHADOWHOOK_API void shadowhook_pop_stack(void* return_address) {
    FrameStack& stack = t_frames;
    size_t count = stack.count;
    if (count > 0 &&
        stack.frames[count - 1].returnAddress == reinterpret_cast<uintptr_t>(return_address)) {
        stack.count = count - 1;  // the usual case: the newest frame is the caller's
        return;
    }
    Frame* frame = FindFrame(reinterpret_cast<uintptr_t>(return_address));
    if (frame == nullptr) {
        return;
    }
    // Frames above it belong to replacements that returned without popping; they stay, so that
    // their functions keep running the original on this thread as on a device.
    Frame* end = stack.frames + stack.count;
    for (Frame* moved = frame; moved + 1 < end; ++moved) {
        *moved = moved[1];
    }
    std::atomic_signal_fence(std::memory_order_seq_cst);
    --stack.count;
}

SHADOWHOOK_API void shadowhook_allow_reentrant(void* return_address) {
    if (Frame* frame = FindFrame(reinterpret_cast<uintptr_t>(return_address))) {
        frame->reentrant = true;
    }
}

SHADOWHOOK_API void shadowhook_disallow_reentrant(void* return_address) {
    if (Frame* frame = FindFrame(reinterpret_cast<uintptr_t>(return_address))) {
        frame->reentrant = false;
    }
}

SHADOWHOOK_API void* shadowhook_get_return_address(void) {
    const FrameStack& stack = t_frames;
    for (size_t i = stack.count; i > 0; --i) {
        if (stack.frames[i - 1].hub != nullptr) {
            return reinterpret_cast<void*>(stack.frames[i - 1].returnAddress);
        }
    }
    return nullptr;
}
