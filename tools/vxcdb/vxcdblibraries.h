// Opens the libraries a hook-case file names the way the hook engine opens them, from a device
// tree given as a directory, and looks up the symbols the hooks need. Each library is opened
// once; every handle is closed when the probe goes.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace vxcdb {

// The path `dlopen` gets for library `name` of a configuration file when the device's root is
// `sysroot`. A relative path is relative to the camera service's working directory, the root;
// an absolute path is a device path; a bare file name is searched by the dynamic linker.
std::string LibraryPathInSysroot(const std::string& name, const std::string& sysroot);

class LibraryProbe {
  public:
    explicit LibraryProbe(std::string sysroot) : m_sysroot(std::move(sysroot)) {}

    // Empty when `name` loads as the service would load it; otherwise dlerror()'s text, or the
    // references nothing in the camera process would resolve.
    std::string Load(const std::string& name);
    // Empty when the loaded library `name` (or a library it needs) exports `symbol`; otherwise
    // dlerror()'s text. `name` must have loaded.
    std::string FindSymbol(const std::string& name, const std::string& symbol);
    // The functions and objects the library file defines and exports, for suggestions; empty
    // when the file cannot be read as an ELF file of this machine's word size.
    std::vector<std::string> ExportedSymbols(const std::string& name);

  private:
    struct Closer {
        void operator()(void* handle) const;
    };
    struct Library {
        std::unique_ptr<void, Closer> handle;
        std::string error;
    };

    Library& Open(const std::string& name);
    bool ServiceProvides(const std::string& symbol);

    std::string m_sysroot;
    std::map<std::string, Library> m_libraries;
    bool m_serviceSymbolsRead = false;
    std::vector<std::string> m_serviceSymbols;  // sorted
};

}  // namespace vxcdb
