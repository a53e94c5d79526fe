#include "elfsymbols.h"

#include <dlfcn.h>
#include <link.h>

namespace corvane::inlinehook {

namespace {

// The loader relocates most pointers of an object's dynamic section in place, but not those of
// the vDSO or of objects whose dynamic section is read-only: those are still offsets.
uintptr_t DynamicPointer(const link_map* object, ElfW(Addr) value) {
    return value < object->l_addr ? object->l_addr + value : value;
}

// The number of entries of the dynamic symbol table, which only the hash tables tell.
size_t SymbolCount(uintptr_t hash, uintptr_t gnuHash) {
    if (hash != 0) {
        return reinterpret_cast<const uint32_t*>(hash)[1];  // nchain
    }
    if (gnuHash == 0) {
        return 0;
    }
    const auto* header = reinterpret_cast<const uint32_t*>(gnuHash);
    const uint32_t bucketCount = header[0];
    const uint32_t firstHashed = header[1];
    const uint32_t bloomWords = header[2];
    const auto* buckets = reinterpret_cast<const uint32_t*>(
        reinterpret_cast<const ElfW(Addr)*>(header + 4) + bloomWords);
    const uint32_t* chains = buckets + bucketCount;
    uint32_t last = 0;
    for (uint32_t i = 0; i < bucketCount; ++i) {
        last = buckets[i] > last ? buckets[i] : last;
    }
    if (last < firstHashed) {
        return firstHashed;
    }
    // The last bucket's chain ends at the entry whose low bit is set.
    while ((chains[last - firstHashed] & 1) == 0) {
        ++last;
    }
    return last + 1;
}

}  // namespace

uintptr_t FirstSymbolBetween(uintptr_t after, uintptr_t before) {
    Dl_info info;
    link_map* object = nullptr;
    if (dladdr1(reinterpret_cast<void*>(after), &info, reinterpret_cast<void**>(&object),
                RTLD_DL_LINKMAP) == 0 ||
        object == nullptr || object->l_ld == nullptr) {
        return 0;
    }
    uintptr_t symbols = 0;
    uintptr_t hash = 0;
    uintptr_t gnuHash = 0;
    for (const ElfW(Dyn)* entry = object->l_ld; entry->d_tag != DT_NULL; ++entry) {
        if (entry->d_tag == DT_SYMTAB) {
            symbols = DynamicPointer(object, entry->d_un.d_ptr);
        } else if (entry->d_tag == DT_HASH) {
            hash = DynamicPointer(object, entry->d_un.d_ptr);
        } else if (entry->d_tag == DT_GNU_HASH) {
            gnuHash = DynamicPointer(object, entry->d_un.d_ptr);
        }
    }
    if (symbols == 0) {
        return 0;
    }
    const size_t count = SymbolCount(hash, gnuHash);
    const auto* table = reinterpret_cast<const ElfW(Sym)*>(symbols);
    uintptr_t first = 0;
    for (size_t i = 0; i < count; ++i) {
        const ElfW(Sym)& symbol = table[i];
        // Undefined and absolute symbols name no code here; a TLS symbol's value is an offset.
        if (symbol.st_shndx == SHN_UNDEF || symbol.st_shndx == SHN_ABS ||
            ELF64_ST_TYPE(symbol.st_info) == STT_TLS || symbol.st_value == 0) {
            continue;
        }
        const uintptr_t start = object->l_addr + symbol.st_value;
        if (start > after && start < before && (first == 0 || start < first)) {
            first = start;
        }
    }
    return first;
}

}  // namespace corvane::inlinehook
