// The shared-mode hub: how several replacements of one function run one after the other, and
// how each thread keeps track of the replacements it is inside.
//
// In shared mode the entry relay of a hooked function leads to a small per-function stub that
// enters HubEntry (hubentry_<arch>.cpp) with the function's Hub. HubEntry saves the argument
// registers, asks HubPush where to go and jumps there with the caller's return address untouched:
// to the newest replacement, after pushing a frame on this thread's frame stack, or straight to
// the original function when this thread is already inside a replacement of the same function
// (recursion, cycles between replacements, or a replacement that never popped its frame) and
// that frame does not allow reentry.
//
// A replacement calls what it replaced through shadowhook_get_prev_func (SHADOWHOOK_CALL_PREV):
// the next older replacement still in the chain, or the original. It pops its frame
// (SHADOWHOOK_POP_STACK, SHADOWHOOK_STACK_SCOPE) before it returns.
//
// Chains are singly linked lists of nodes, newest first, read without locks. The engine (under
// its mutex) links new nodes in front and unlinks removed ones; a removed node keeps its link, so
// a thread standing on it still walks on to the original. Nodes are never freed: a removed one
// serves a later hook of the same function after a grace period, so memory stays bounded by the
// hooks alive plus those removed within the period.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <chrono>
#include <deque>

namespace corvane::inlinehook {

class Hub {
  public:
    // `orig` is the entry that runs the original function (the site's trampoline).
    explicit Hub(uintptr_t orig);
    Hub(const Hub&) = delete;
    Hub& operator=(const Hub&) = delete;

    // Engine mutex held. Add links `proxy` in front (may throw std::bad_alloc before changing
    // anything); Remove unlinks it and returns false when it is not in the chain.
    void Add(uintptr_t proxy, std::chrono::milliseconds gracePeriod);
    bool Remove(uintptr_t proxy);
    size_t nodesAllocated() const { return m_nodesAllocated; }
    size_t nodesRetired() const { return m_retired.size(); }

    // Lock-free, from any thread.
    uintptr_t orig() const { return m_orig; }
    // The newest replacement, or 0 when the chain is empty.
    __attribute__((always_inline)) uintptr_t First() const;
    // What runs after `proxy` in this chain (the next older replacement, or the original); false
    // when `proxy` was never in it.
    bool Next(uintptr_t proxy, uintptr_t* next) const;
    // Next, looking only at the replacements in the chain, or only at those removed from it.
    __attribute__((always_inline)) bool NextLive(uintptr_t proxy, uintptr_t* next) const;
    bool NextRemoved(uintptr_t proxy, uintptr_t* next) const;
    // Searches every hub ever made.
    static bool FindNext(uintptr_t proxy, uintptr_t* next);

  private:
    struct Node {
        std::atomic<uintptr_t> proxy{0};
        std::atomic<bool> enabled{false};
        std::atomic<Node*> next{nullptr};  // the next older replacement when it was linked
        Node* allNext = nullptr;           // every node of this hub, set before publication
        std::chrono::steady_clock::time_point retiredAt;
        std::atomic<uint64_t> removal{0};  // when it was last removed, counted per hub
    };
    // The first replacement still in the chain from `node` on, or 0.
    __attribute__((always_inline)) uintptr_t FirstEnabledFrom(const Node* node) const;

    const uintptr_t m_orig;
    std::atomic<Node*> m_head{nullptr};
    std::atomic<Node*> m_allNodes{nullptr};
    std::deque<Node*> m_retired;  // engine mutex held; oldest first
    size_t m_nodesAllocated = 0;
    uint64_t m_removals = 0;   // engine mutex held
    Hub* m_nextHub = nullptr;  // every hub ever made, newest first; set before publication
};

// The code a site's entry relay jumps to in shared mode: loads `hub` into a scratch register and
// enters HubEntry. kHubStubSize bytes, written into an island by the engine.
constexpr size_t kHubStubSize = 32;
void EncodeHubStub(const Hub* hub, uint8_t* code);

}  // namespace corvane::inlinehook

// Called by HubEntry with the caller's return address; returns where to jump.
extern "C" uintptr_t CorvaneHubPush(corvane::inlinehook::Hub* hub, uintptr_t returnAddress);
