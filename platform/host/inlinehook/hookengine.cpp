#include "hookengine.h"

#include <dlfcn.h>
#include <link.h>
#include <pthread.h>
#include <string.h>
#include <sys/mman.h>

#include <algorithm>

#include "codewindow.h"
#include "elfsymbols.h"
#include "hooklog.h"
#include "memorymap.h"
#include "prologuerelocator.h"

namespace corvane::inlinehook {

namespace {

constexpr size_t kPatchSize = PrologueRelocator::kPatchSize;
constexpr size_t kRelaySize = PrologueRelocator::kRelaySize;
constexpr size_t kSlotOffset = PrologueRelocator::kSlotOffset;
using EntrySigning = PrologueRelocator::EntrySigning;
// Without a symbol size, how far after the address code is searched for branches back into the
// displaced bytes: a function's own loop back to its start is rarely further away, and the search
// stops earlier at the next symbol, where another function begins.
constexpr uintptr_t kUnsizedScanWindow = 256;

uintptr_t SlotOf(uintptr_t relay) {
    return relay + kSlotOffset;
}

void WriteRelay(uintptr_t relay, uintptr_t target, EntrySigning signing = EntrySigning::None) {
    uint8_t code[kSlotOffset];
    PrologueRelocator::EncodeRelay(signing, code);
    CopyToCode(relay, code, sizeof(code));
    StoreSlot(SlotOf(relay), target);
}

// Replaces the patch bytes of a function: atomically when they sit in one cache line, otherwise
// by a plain copy, which the caller only does with every other thread paused.
void WriteEntry(uintptr_t target, const uint8_t* bytes) {
    if (CanStoreCodeAtomically(target, kPatchSize)) {
        StoreCodeAtomically(target, bytes, kPatchSize);
    } else {
        CopyToCode(target, bytes, kPatchSize);
    }
}

// The extent of the ELF symbol holding `address`, and the base of its object.
void FindSymbol(uintptr_t address, uintptr_t* objectBase, uintptr_t* start, uintptr_t* end) {
    *objectBase = *start = *end = 0;
    Dl_info info;
    void* entry = nullptr;
    if (dladdr1(reinterpret_cast<void*>(address), &info, &entry, RTLD_DL_SYMENT) == 0) {
        return;
    }
    const auto* symbol = static_cast<const ElfW(Sym)*>(entry);
    *objectBase = reinterpret_cast<uintptr_t>(info.dli_fbase);
    if (symbol == nullptr || info.dli_saddr == nullptr || symbol->st_size == 0) {
        return;
    }
    uintptr_t symbolStart = reinterpret_cast<uintptr_t>(info.dli_saddr);
    if (address >= symbolStart && address < symbolStart + symbol->st_size) {
        *start = symbolStart;
        *end = symbolStart + symbol->st_size;
    }
}

std::string Describe(uintptr_t address) {
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(address), &info) == 0) {
        return Format("%#lx", static_cast<unsigned long>(address));
    }
    const char* object = info.dli_fname != nullptr ? strrchr(info.dli_fname, '/') : nullptr;
    object = object != nullptr ? object + 1 : (info.dli_fname != nullptr ? info.dli_fname : "?");
    if (info.dli_sname == nullptr) {
        return Format("%#lx (%s)", static_cast<unsigned long>(address), object);
    }
    uintptr_t offset = address - reinterpret_cast<uintptr_t>(info.dli_saddr);
    return offset == 0
               ? Format("%s (%#lx, %s)", info.dli_sname, static_cast<unsigned long>(address),
                        object)
               : Format("%s+%#lx (%#lx, %s)", info.dli_sname, static_cast<unsigned long>(offset),
                        static_cast<unsigned long>(address), object);
}

}  // namespace

HookEngine& HookEngine::Instance() {
    // Never destroyed: hooks outlive static destruction, and a thread may still be in a relay.
    static HookEngine* engine = new HookEngine();
    return *engine;
}

HookStatus HookEngine::Initialise(shadowhook_mode_t mode) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_mode = mode;
    HookStatus status = ThreadPause::InstallHandler();
    if (!status.ok()) {
        return status;
    }
    RegisterCoreSync();
    pthread_atfork(LockForFork, UnlockAfterFork, UnlockAfterFork);
    return HookStatus::Ok();
}

void HookEngine::LockForFork() {
    Instance().m_mutex.lock();
}

void HookEngine::UnlockAfterFork() {
    Instance().m_mutex.unlock();
}

HookStatus HookEngine::Hook(uintptr_t target, uintptr_t replacement, void** orig, void** stub) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (target == replacement) {
        return HookStatus::Error(SHADOWHOOK_ERRNO_INVALID_ARG,
                                 "the replacement is the hooked function itself");
    }
    if (m_islands.Contains(target)) {
        return HookStatus::Error(SHADOWHOOK_ERRNO_INVALID_ARG,
                                 "the address is one of the engine's own relays or trampolines "
                                 "(an orig entry?); hook the function itself");
    }
    auto found = m_sites.find(target);
    Site* site = found != m_sites.end() ? found->second.get() : nullptr;
    if (site != nullptr && site->patched) {
        return AddToChain(*site, replacement, orig, stub);
    }
    if (site == nullptr || !SiteStillMatches(*site)) {
        std::unique_ptr<Site> fresh;
        HookStatus status = BuildSite(target, &fresh);
        if (!status.ok()) {
            return status;
        }
        site = fresh.get();
        // A stale site of the same address (its library reloaded with other code) goes; its
        // trampoline stays mapped for any thread still inside it.
        m_sites[target] = std::move(fresh);
    }
    return InstallFirstHook(*site, replacement, orig, stub);
}

HookStatus HookEngine::BuildSite(uintptr_t target, std::unique_ptr<Site>* out) {
    MemoryMap map;
    HookStatus status = map.Load();
    if (!status.ok()) {
        return status;
    }
    const MappedRegion* region = map.Find(target);
    constexpr int kReadExec = PROT_READ | PROT_EXEC;
    if (region == nullptr || (region->prot & kReadExec) != kReadExec) {
        return HookStatus::Error(SHADOWHOOK_ERRNO_INVALID_ARG,
                                 Format("%#lx is not in readable executable memory (%s)",
                                        static_cast<unsigned long>(target),
                                        region == nullptr ? "not mapped" : region->name.c_str()));
    }
    auto site = std::make_unique<Site>();
    site->target = target;
    CodeBounds bounds;
    bounds.readableEnd = map.ReadableEnd(target);
    FindSymbol(target, &site->objectBase, &site->symbolStart, &site->symbolEnd);
    // A symbol whose size runs outside the readable code around it is not believed.
    if (site->symbolStart >= region->start && site->symbolEnd <= bounds.readableEnd) {
        bounds.functionStart = site->symbolStart;
        bounds.functionEnd = site->symbolEnd;
    }
    const uintptr_t nextSymbol = FirstSymbolBetween(target, target + kUnsizedScanWindow);
    if (!bounds.functionKnown()) {
        bounds.scanEnd = std::min(bounds.readableEnd, target + kUnsizedScanWindow);
        bounds.scanEnd = nextSymbol != 0 ? std::min(bounds.scanEnd, nextSymbol) : bounds.scanEnd;
    }

    PrologueRelocator relocator;
    status = relocator.Analyze(target, bounds);
    if (!status.ok()) {
        return status;
    }
    site->regionLength = relocator.regionLength();
    site->patchAddress = target + relocator.patchOffset();
    if (nextSymbol != 0 && nextSymbol < target + site->regionLength) {
        // Callers entering there would land inside the jump.
        return HookStatus::Error(
            SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED,
            Format("the symbol %s starts inside the %zu bytes the hook displaces",
                   Describe(nextSymbol).c_str(), site->regionLength));
    }
    status = CheckOverlap(target, site->regionLength);
    if (!status.ok()) {
        return status;
    }
    const MappedRegion* lastPage = map.Find(site->patchAddress + kPatchSize - 1);
    const MappedRegion* firstPage = map.Find(site->patchAddress);
    site->pageProt[0] = firstPage != nullptr ? firstPage->prot : region->prot;
    site->pageProt[1] = lastPage != nullptr ? lastPage->prot : region->prot;

    uintptr_t block = 0;
    status = m_islands.Allocate(target, kRelaySize + relocator.maxTrampolineSize(), &block);
    if (!status.ok()) {
        return status;
    }
    site->entryRelay = block;
    site->trampoline = block + kRelaySize;
    std::vector<uint8_t> code;
    status = relocator.Emit(site->trampoline, &code);
    if (!status.ok()) {
        return status;  // the block stays unused: bounded by such failures, which are rare
    }
    {
        CodeWindow window;
        status = window.Open(block, kRelaySize + code.size(), IslandAllocator::kIslandProt);
        if (!status.ok()) {
            return status;
        }
        WriteRelay(site->entryRelay, site->trampoline, relocator.entrySigning());
        CopyToCode(site->trampoline, code.data(), code.size());
    }

    CopyFromCode(site->original, target, site->regionLength);
    if (!PrologueRelocator::EncodeEntryJump(site->patchAddress, site->entryRelay, site->patch)) {
        return HookStatus::Error(SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED,
                                 "the relay island lies out of the entry jump's reach");
    }
    for (const auto& [from, to] : relocator.InteriorBoundaries()) {
        site->redirects[site->redirectCount++] =
            PauseRedirect{target + from, site->trampoline + to};
    }
    INLINEHOOK_LOGI(
        "prepared %s: %zu displaced bytes in %zu instructions, trampoline %#lx (%zu "
        "bytes)%s",
        Describe(target).c_str(), site->regionLength, relocator.instructions().size(),
        static_cast<unsigned long>(site->trampoline), code.size(),
        bounds.functionKnown()
            ? ""
            : Format(", no symbol size: branches checked over the next %zu bytes",
                     static_cast<size_t>(bounds.scanEnd - target))
                  .c_str());
    *out = std::move(site);
    return HookStatus::Ok();
}

bool HookEngine::SiteStillMatches(const Site& site) const {
    uintptr_t objectBase = 0;
    uintptr_t start = 0;
    uintptr_t end = 0;
    FindSymbol(site.target, &objectBase, &start, &end);
    if (objectBase != site.objectBase || start != site.symbolStart || end != site.symbolEnd) {
        return false;
    }
    if (objectBase == 0) {
        // Anonymous code (JIT, hand-made): nothing vouches for it but the current mappings.
        MemoryMap map;
        if (!map.Load().ok()) {
            return false;
        }
        const MappedRegion* first = map.Find(site.patchAddress);
        const MappedRegion* fifth = map.Find(site.patchAddress + kPatchSize - 1);
        if (first == nullptr || fifth == nullptr || first->prot != site.pageProt[0] ||
            fifth->prot != site.pageProt[1] ||
            map.ReadableEnd(site.target) < site.target + site.regionLength) {
            return false;
        }
    }
    uint8_t current[sizeof(site.original)];
    CopyFromCode(current, site.target, site.regionLength);
    return memcmp(current, site.original, site.regionLength) == 0;
}

HookStatus HookEngine::CheckOverlap(uintptr_t target, size_t length) const {
    auto next = m_sites.upper_bound(target);
    if (next != m_sites.end() && next->second->patched && target + length > next->first) {
        return HookStatus::Error(SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED,
                                 Format("the bytes to displace reach into the hook at %s",
                                        Describe(next->first).c_str()));
    }
    auto it = m_sites.lower_bound(target);
    if (it != m_sites.begin()) {
        const Site& previous = *std::prev(it)->second;
        if (previous.patched && previous.target + previous.regionLength > target) {
            return HookStatus::Error(SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED,
                                     Format("the address lies in the bytes displaced by the hook "
                                            "at %s",
                                            Describe(previous.target).c_str()));
        }
    }
    return HookStatus::Ok();
}

HookStatus HookEngine::PrepareHub(Site& site) {
    if (site.hub == nullptr) {
        site.hub = new Hub(site.trampoline);
    }
    if (m_mode != SHADOWHOOK_MODE_SHARED || site.hubStub != 0) {
        return HookStatus::Ok();
    }
    uintptr_t stub = 0;
    HookStatus status = m_islands.Allocate(site.target, kHubStubSize, &stub);
    if (!status.ok()) {
        return status;
    }
    CodeWindow window;
    status = window.Open(stub, kHubStubSize, IslandAllocator::kIslandProt);
    if (!status.ok()) {
        return status;  // the block stays unused, like a trampoline that failed
    }
    uint8_t code[kHubStubSize];
    EncodeHubStub(site.hub, code);
    CopyToCode(stub, code, sizeof(code));
    site.hubStub = stub;
    return HookStatus::Ok();
}

void HookEngine::AddToHub(Site& site, const HookRecord& record) {
    try {
        site.hub->Add(record.replacement, m_gracePeriod);
    } catch (...) {
        m_hooks.erase(record.id);
        throw;  // out of memory, nothing changed; the C API reports it
    }
}

HookEngine::HookRecord* HookEngine::NewRecord(Site& site, uintptr_t replacement) {
    auto record = std::make_unique<HookRecord>();
    record->id = m_nextId++;
    record->site = &site;
    record->replacement = replacement;
    HookRecord* raw = record.get();
    m_hooks.emplace(raw->id, std::move(record));
    // So that adding the hook to the chain cannot fail once the hook is live.
    site.chain.reserve(site.chain.size() + 1);
    return raw;
}

HookStatus HookEngine::OpenTargetWindow(const Site& site, CodeWindow* window) const {
    HookStatus status = window->Open(site.patchAddress, 1, site.pageProt[0]);
    if (status.ok()) {
        status = window->Open(site.patchAddress + kPatchSize - 1, 1, site.pageProt[1]);
    }
    return status;
}

HookStatus HookEngine::InstallFirstHook(Site& site, uintptr_t replacement, void** orig,
                                        void** stub) {
    HookStatus status = PrepareHub(site);
    if (!status.ok()) {
        return status;
    }
    // Made before the pause: until Resume() nothing may allocate (see ThreadPause).
    HookRecord* record = NewRecord(site, replacement);
    AddToHub(site, *record);
    CodeWindow islandWindow;
    CodeWindow targetWindow;
    status = islandWindow.Open(site.entryRelay, kRelaySize, IslandAllocator::kIslandProt);
    if (status.ok()) {
        status = OpenTargetWindow(site, &targetWindow);
    }
    ThreadPause pause;
    bool atomic = CanStoreCodeAtomically(site.patchAddress, kPatchSize);
    bool needPause = site.redirectCount > 0 || !atomic;
    if (status.ok() && needPause) {
        status = pause.Pause(site.redirects, site.redirectCount);
    }
    if (!status.ok()) {
        site.hub->Remove(replacement);
        m_hooks.erase(record->id);
        return status;
    }
    if (orig != nullptr) {
        __atomic_store_n(orig, reinterpret_cast<void*>(site.trampoline), __ATOMIC_RELEASE);
    }
    StoreSlot(SlotOf(site.entryRelay), site.hubStub != 0 ? site.hubStub : replacement);
    WriteEntry(site.patchAddress, site.patch);
    SyncCores();
    pause.Resume();
    targetWindow.Close();
    islandWindow.Close();
    site.patched = true;
    site.chain.push_back(record);
    *stub = reinterpret_cast<void*>(static_cast<uintptr_t>(record->id));
    INLINEHOOK_LOGI("hooked %s -> %#lx, orig %#lx (trampoline), stub %p: entry patched %s",
                    Describe(site.target).c_str(), static_cast<unsigned long>(replacement),
                    static_cast<unsigned long>(site.trampoline), *stub,
                    needPause ? Format("with %zu other threads paused (%zu skipped)",
                                       pause.pausedThreads(), pause.skippedThreads())
                                    .c_str()
                              : "by one atomic store");
    return HookStatus::Ok();
}

HookStatus HookEngine::AddToChain(Site& site, uintptr_t replacement, void** orig, void** stub) {
    if (m_mode == SHADOWHOOK_MODE_UNIQUE) {
        return HookStatus::Error(SHADOWHOOK_ERRNO_HOOK_DUP,
                                 Format("%s is already hooked and the engine is in unique mode",
                                        Describe(site.target).c_str()));
    }
    for (const HookRecord* record : site.chain) {
        if (record->replacement == replacement) {
            return HookStatus::Error(
                SHADOWHOOK_ERRNO_HOOK_DUP,
                Format("%s is already hooked with the replacement %#lx; chaining it twice would "
                       "make it run twice and overwrite its own orig entry",
                       Describe(site.target).c_str(), static_cast<unsigned long>(replacement)));
        }
    }
    // The orig entry is the original function itself: the chain is walked with
    // SHADOWHOOK_CALL_PREV, so a caller of orig skips every other replacement, as on a device.
    HookRecord* record = NewRecord(site, replacement);
    AddToHub(site, *record);
    if (orig != nullptr) {
        __atomic_store_n(orig, reinterpret_cast<void*>(site.trampoline), __ATOMIC_RELEASE);
    }
    site.chain.push_back(record);
    *stub = reinterpret_cast<void*>(static_cast<uintptr_t>(record->id));
    INLINEHOOK_LOGI("hooked %s -> %#lx, orig %#lx, stub %p: chained as hook %zu",
                    Describe(site.target).c_str(), static_cast<unsigned long>(replacement),
                    static_cast<unsigned long>(site.trampoline), *stub, site.chain.size());
    return HookStatus::Ok();
}

HookStatus HookEngine::Unhook(void* stub) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto found = m_hooks.find(static_cast<uint64_t>(reinterpret_cast<uintptr_t>(stub)));
    if (found == m_hooks.end()) {
        return HookStatus::Error(SHADOWHOOK_ERRNO_UNHOOK_NOTFOUND,
                                 Format("no hook has the stub %p (never returned by a hook call, "
                                        "or already unhooked)",
                                        stub));
    }
    HookRecord& record = *found->second;
    Site& site = *record.site;
    size_t index = static_cast<size_t>(std::find(site.chain.begin(), site.chain.end(), &record) -
                                       site.chain.begin());
    bool last = site.chain.size() == 1;
    if (!last) {
        // The entry keeps leading to the hub; a thread inside the removed replacement walks on
        // from its node to the older ones.
        site.hub->Remove(record.replacement);
    } else {
        CodeWindow targetWindow;
        HookStatus status = OpenTargetWindow(site, &targetWindow);
        ThreadPause pause;
        bool needPause = !CanStoreCodeAtomically(site.patchAddress, kPatchSize);
        if (status.ok() && needPause) {
            status = pause.Pause(nullptr, 0);
        }
        if (!status.ok()) {
            return status;  // nothing changed
        }
        WriteEntry(site.patchAddress, site.original + (site.patchAddress - site.target));
        SyncCores();
        pause.Resume();
        targetWindow.Close();
        site.hub->Remove(record.replacement);
    }

    if (last) {
        site.patched = false;
    }
    site.chain.erase(site.chain.begin() + static_cast<std::ptrdiff_t>(index));
    INLINEHOOK_LOGI(
        "unhooked stub %p from %s: %s", stub, Describe(site.target).c_str(),
        last ? "original bytes restored" : Format("%zu hooks remain", site.chain.size()).c_str());
    m_hooks.erase(found);
    return HookStatus::Ok();
}

HookEngine::Statistics HookEngine::GetStatistics() {
    std::lock_guard<std::mutex> lock(m_mutex);
    Statistics statistics;
    statistics.sites = m_sites.size();
    statistics.liveHooks = m_hooks.size();
    statistics.islands = m_islands.islandCount();
    statistics.islandBytes = m_islands.bytesInUse();
    for (const auto& [address, site] : m_sites) {
        if (site->hub != nullptr) {
            statistics.chainNodes += site->hub->nodesAllocated();
            statistics.chainNodesRetired += site->hub->nodesRetired();
        }
    }
    return statistics;
}

void HookEngine::SetGracePeriod(std::chrono::milliseconds period) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_gracePeriod = period;
}

}  // namespace corvane::inlinehook
