#include "tools/vxcdb/vxcdblibraries.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <string.h>

#include <utility>

#include "utils/fileutils.h"

namespace vxcdb {

namespace {

// The engine opens libraries with RTLD_NOW too: a library with an unresolved reference fails
// here as it fails in the service. RTLD_LOCAL keeps one probed library from satisfying another.
constexpr int kOpenFlags = RTLD_NOW | RTLD_LOCAL;

const char* LastError() {
    const char* error = dlerror();
    return error == nullptr ? "unknown error" : error;
}

// The defined, exported functions and objects of the dynamic symbol table.
template <typename Header, typename SectionHeader, typename Symbol>
std::vector<std::string> DynamicSymbols(const std::string& image) {
    std::vector<std::string> names;
    if (image.size() < sizeof(Header)) {
        return names;
    }
    Header header;
    memcpy(&header, image.data(), sizeof(header));
    if (header.e_shentsize != sizeof(SectionHeader) ||
        header.e_shoff + static_cast<uint64_t>(header.e_shnum) * sizeof(SectionHeader) >
            image.size()) {
        return names;
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
            return names;
        }
        for (uint64_t at = 0; at + sizeof(Symbol) <= symbols.sh_size; at += sizeof(Symbol)) {
            Symbol symbol;
            memcpy(&symbol, image.data() + symbols.sh_offset + at, sizeof(symbol));
            unsigned type = symbol.st_info & 0xf;
            unsigned binding = symbol.st_info >> 4;
            if (symbol.st_shndx == SHN_UNDEF || symbol.st_name >= strings.sh_size ||
                (type != STT_FUNC && type != STT_OBJECT) ||
                (binding != STB_GLOBAL && binding != STB_WEAK)) {
                continue;
            }
            const char* start = image.data() + strings.sh_offset + symbol.st_name;
            names.emplace_back(start, strnlen(start, strings.sh_size - symbol.st_name));
        }
    }
    return names;
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
    }
    return library;
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
    link_map* map = nullptr;
    if (library.handle == nullptr || dlinfo(library.handle.get(), RTLD_DI_LINKMAP, &map) != 0 ||
        map == nullptr || map->l_name == nullptr) {
        return {};
    }
    std::string image;
    if (!ReadWholeFile(map->l_name, &image)) {
        return {};
    }
#if __SIZEOF_POINTER__ == 8
    return DynamicSymbols<Elf64_Ehdr, Elf64_Shdr, Elf64_Sym>(image);
#else
    return DynamicSymbols<Elf32_Ehdr, Elf32_Shdr, Elf32_Sym>(image);
#endif
}

}  // namespace vxcdb
