#include "support/loaded_library.h"

#include "support/child_process.h"

#include <msi.h>

#include <bit>
#include <stdexcept>
#include <system_error>

namespace test_support {

std::wstring built_library()
{
    return beside_this_program(L"custom_actions.dll");
}

loaded_library::loaded_library(const std::wstring& path)
    : module_{LoadLibraryExW(path.c_str(), nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32)}
{
    if (module_ == nullptr) {
        throw std::system_error{
            static_cast<int>(GetLastError()), std::system_category(), "loading the library"};
    }
    // The runtime opens handles of its own with its first exception: throw one now, so no test counts them.
    call("prepare_controlled_upgrade", 0);
}

loaded_library::~loaded_library()
{
    FreeLibrary(module_);
}

UINT loaded_library::call(const char* name, MSIHANDLE session) const
{
    using action = UINT(__stdcall*)(MSIHANDLE);
    const auto entry = std::bit_cast<action>(GetProcAddress(module_, name));
    if (entry == nullptr) {
        throw std::runtime_error{std::string{"no export "} + name};
    }
    return entry(session);
}

} // namespace test_support
