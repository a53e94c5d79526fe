// The engine behind the ShadowHook C API on x86-64 and AArch64 Linux.
//
// Every hooked address is a *site*: its entry becomes a jump to the site's entry relay, an
// indirect jump through an 8-byte slot. The site's trampoline runs the displaced instructions and
// jumps back; it is the orig entry of every hook of the site. In unique mode the slot holds the
// one replacement. In shared mode it holds the site's hub stub, and the replacements form the
// site's Hub chain (hub.h): a replacement reaches the next one through SHADOWHOOK_CALL_PREV, and
// per-thread frames keep a replacement from being entered again while it runs. Adding or removing
// a hook of a site already hooked changes the chain only; the first hook of a site and the removal
// of its last one rewrite the function.
//
// Memory: a site (entry relay, trampoline, hub and its stub) is built once per function and
// reused by every later hook of it for as long as its bytes and symbol stay the same. A chain
// node of a removed hook serves a later hook of the same function once it has been retired for
// the grace period. Memory is therefore bounded by the functions ever hooked, the hooks alive, and
// the hooks removed within the grace period. Nothing is ever unmapped or freed.
//
// Thread safety: one mutex serialises hook and unhook calls. Threads running the hooked functions
// are never stopped except while a function's entry is rewritten and the displaced instructions
// are more than one, or the 5 bytes straddle a cache line (see ThreadPause).
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "hookstatus.h"
#include "hub.h"
#include "islandallocator.h"
#include "shadowhook.h"
#include "threadpause.h"

namespace corvane::inlinehook {

class CodeWindow;

class HookEngine {
  public:
    static HookEngine& Instance();

    HookStatus Initialise(shadowhook_mode_t mode);
    HookStatus Hook(uintptr_t target, uintptr_t replacement, void** orig, void** stub);
    HookStatus Unhook(void* stub);

    struct Statistics {
        size_t sites = 0;  // functions with a trampoline, hooked now or before
        size_t liveHooks = 0;
        size_t islands = 0;
        size_t islandBytes = 0;        // handed out from the islands
        size_t chainNodes = 0;         // chain nodes ever made (reused ones not recounted)
        size_t chainNodesRetired = 0;  // of removed hooks, waiting for reuse
    };
    Statistics GetStatistics();
    // How long the chain node of a removed hook waits before it serves another hook.
    void SetGracePeriod(std::chrono::milliseconds period);

    static constexpr std::chrono::milliseconds kDefaultGracePeriod{5000};

  private:
    struct Site;
    struct HookRecord {
        uint64_t id = 0;
        Site* site = nullptr;
        uintptr_t replacement = 0;
    };
    struct Site {
        uintptr_t target = 0;
        size_t regionLength = 0;
        uintptr_t patchAddress = 0;  // where the entry jump goes: the target, or past a landing pad
        uint8_t original[32] = {};   // the displaced bytes as found
        uint8_t patch[8] = {};
        uintptr_t entryRelay = 0;
        uintptr_t trampoline = 0;
        PauseRedirect redirects[ThreadPause::kMaxRedirects] = {};
        size_t redirectCount = 0;
        int pageProt[2] = {};  // protection of the pages of the entry jump's first and last byte
        uintptr_t objectBase = 0;
        uintptr_t symbolStart = 0;
        uintptr_t symbolEnd = 0;
        bool patched = false;
        std::vector<HookRecord*> chain;  // oldest first
        Hub* hub = nullptr;              // made with the first hook, never freed
        uintptr_t hubStub = 0;           // shared mode: what the entry relay's slot leads to
    };

    // Hold the mutex across fork(), so that a child never inherits it locked by a thread that
    // does not exist there.
    static void LockForFork();
    static void UnlockAfterFork();

    HookStatus BuildSite(uintptr_t target, std::unique_ptr<Site>* site);
    bool SiteStillMatches(const Site& site) const;
    HookStatus CheckOverlap(uintptr_t target, size_t length) const;
    HookStatus PrepareHub(Site& site);
    HookStatus OpenTargetWindow(const Site& site, CodeWindow* window) const;
    HookStatus InstallFirstHook(Site& site, uintptr_t replacement, void** orig, void** stub);
    HookStatus AddToChain(Site& site, uintptr_t replacement, void** orig, void** stub);
    HookRecord* NewRecord(Site& site, uintptr_t replacement);
    void AddToHub(Site& site, const HookRecord& record);

    std::mutex m_mutex;
    shadowhook_mode_t m_mode = SHADOWHOOK_MODE_SHARED;
    IslandAllocator m_islands;
    std::map<uintptr_t, std::unique_ptr<Site>> m_sites;
    std::unordered_map<uint64_t, std::unique_ptr<HookRecord>> m_hooks;
    uint64_t m_nextId = 1;
    std::chrono::milliseconds m_gracePeriod = kDefaultGracePeriod;
};

}  // namespace corvane::inlinehook
