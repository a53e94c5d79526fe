#include "tools/vxcdb/vxcdblibraries.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "utils/fileutils.h"

namespace vxcdb {

namespace {

// The engine opens libraries with RTLD_NOW. Here references to functions are left to be
// resolved at call time instead, and then checked one by one: a fault library may call functions
// that only the camera service's process provides (the inline-hook library's, the controller's),
// which a probe outside that process cannot resolve. RTLD_LOCAL keeps one probed library from
// satisfying another.
constexpr int kOpenFlags = RTLD_LAZY | RTLD_LOCAL;

// The library the camera service loads globally: what it exports, every library loaded after it
// may use.
constexpr const char* kServiceLibrary = "vendor/lib64/com.halvern.corvanesystem.core.so";
// The inline-hook library's functions, which the camera process has on a device whatever the
// host's core library exports.
constexpr const char* kInlineHookPrefix = "shadowhook_";

// A library file larger than this is not read for its symbol table.
constexpr size_t kMaxImageBytes = 256 * 1024 * 1024;

const char* LastError() {
    const char* error = dlerror();
    return error == nullptr ? "unknown error" : error;
}

struct SymbolTable {
    std::vector<std::string> defined;    // exported functions and objects
    std::vector<std::string> undefined;  // references that must be resolved (weak ones excluded)
};

// The dynamic symbol table of an ELF image of this machine's word size; empty otherwise.
template <typename Header, typename SectionHeader, typename Symbol>
SymbolTable DynamicSymbols(const std::string& image) {
    SymbolTable table;
    if (image.size() < sizeof(Header)) {
        return table;
    }
    Header header;
    memcpy(&header, image.data(), sizeof(header));
    if (memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_shentsize != sizeof(SectionHeader) ||
        header.e_shoff + static_cast<uint64_t>(header.e_shnum) * sizeof(SectionHeader) >
            image.size()) {
        return table;
    }
    auto section = [&](size_t index) {
        SectionHeader sectionHeader;
        memcpy(&sectionHeader, image.data() + header.e_shoff + index * sizeof(SectionHeader),
               sizeof(sectionHeader));
        return sectionHeader;
    };
    for (size_t i = 0; i < header.e_shnum; ++i) {
        SectionHeader symbols = section(i);
        if (symbols.sh_type != SHT_DYNSYM || symbols.sh_link >= header.e_shnum) {
            continue;
        }
        SectionHeader strings = section(symbols.sh_link);
        if (symbols.sh_offset + symbols.sh_size > image.size() ||
            strings.sh_offset + strings.sh_size > image.size()) {
            return table;
        }
        for (uint64_t at = 0; at + sizeof(Symbol) <= symbols.sh_size; at += sizeof(Symbol)) {
            Symbol symbol;
            memcpy(&symbol, image.data() + symbols.sh_offset + at, sizeof(symbol));
            unsigned type = symbol.st_info & 0xf;
            unsigned binding = symbol.st_info >> 4;
            if (symbol.st_name == 0 || symbol.st_name >= strings.sh_size) {
                continue;
            }
            const char* start = image.data() + strings.sh_offset + symbol.st_name;
            std::string name(start, strnlen(start, strings.sh_size - symbol.st_name));
            if (symbol.st_shndx == SHN_UNDEF) {
                if (binding == STB_GLOBAL) {
                    table.undefined.push_back(std::move(name));
                }
            } else if ((type == STT_FUNC || type == STT_OBJECT) &&
                       (binding == STB_GLOBAL || binding == STB_WEAK)) {
                table.defined.push_back(std::move(name));
            }
        }
    }
    return table;
}

SymbolTable ReadSymbols(const std::string& path) {
    std::string image;
    struct stat status;
    if (stat(path.c_str(), &status) != 0 || static_cast<size_t>(status.st_size) > kMaxImageBytes ||
        !ReadWholeFile(path, &image)) {
        return {};
    }
#if __SIZEOF_POINTER__ == 8
    return DynamicSymbols<Elf64_Ehdr, Elf64_Shdr, Elf64_Sym>(image);
#else
    return DynamicSymbols<Elf32_Ehdr, Elf32_Shdr, Elf32_Sym>(image);
#endif
}

// The file the dynamic linker loaded for `handle`.
std::string LoadedPath(void* handle) {
    link_map* map = nullptr;
    if (dlinfo(handle, RTLD_DI_LINKMAP, &map) != 0 || map == nullptr || map->l_name == nullptr) {
        return "";
    }
    return map->l_name;
}

}  // namespace

std::string LibraryPathInSysroot(const std::string& name, const std::string& sysroot) {
    if (name.find('/') == std::string::npos) {
        return name;
    }
    std::string root = sysroot;
    while (!root.empty() && root.back() == '/') {
        root.pop_back();
    }
    return name[0] == '/' ? root + name : root + "/" + name;
}

void LibraryProbe::Closer::operator()(void* handle) const {
    dlclose(handle);
}

LibraryProbe::Library& LibraryProbe::Open(const std::string& name) {
    auto found = m_libraries.find(name);
    if (found != m_libraries.end()) {
        return found->second;
    }
    Library& library = m_libraries[name];
    library.handle.reset(dlopen(LibraryPathInSysroot(name, m_sysroot).c_str(), kOpenFlags));
    if (library.handle == nullptr) {
        library.error = LastError();
        return library;
    }
    // What the service's RTLD_NOW would have refused: references that neither the library's own
    // dependencies nor the camera process resolve.
    std::string missing;
    for (const std::string& symbol : ReadSymbols(LoadedPath(library.handle.get())).undefined) {
        if (dlsym(library.handle.get(), symbol.c_str()) == nullptr && !ServiceProvides(symbol)) {
            missing += (missing.empty() ? "" : ", ") + symbol;
        }
    }
    if (!missing.empty()) {
        library.error =
            "undefined symbol(s) that neither its libraries nor the camera service "
            "provide: " +
            missing;
    }
    return library;
}

bool LibraryProbe::ServiceProvides(const std::string& symbol) {
    if (!m_serviceSymbolsRead) {
        m_serviceSymbolsRead = true;
        m_serviceSymbols = ReadSymbols(LibraryPathInSysroot(kServiceLibrary, m_sysroot)).defined;
        std::sort(m_serviceSymbols.begin(), m_serviceSymbols.end());
    }
    return symbol.compare(0, strlen(kInlineHookPrefix), kInlineHookPrefix) == 0 ||
           std::binary_search(m_serviceSymbols.begin(), m_serviceSymbols.end(), symbol);
}

std::string LibraryProbe::Load(const std::string& name) {
    return Open(name).error;
}

std::string LibraryProbe::FindSymbol(const std::string& name, const std::string& symbol) {
    Library& library = Open(name);
    if (library.handle == nullptr) {
        return library.error;
    }
    dlerror();
    if (dlsym(library.handle.get(), symbol.c_str()) != nullptr) {
        return "";
    }
    return LastError();
}

std::vector<std::string> LibraryProbe::ExportedSymbols(const std::string& name) {
    Library& library = Open(name);
    if (library.handle == nullptr) {
        return {};
    }
    return ReadSymbols(LoadedPath(library.handle.get())).defined;
}

}  // namespace vxcdb
