#pragma once

#include "custom_actions/common/path.h"
#include "custom_actions/upgrade/context.h"

#include <array>
#include <cstddef>
#include <string>

namespace custom_actions::controlled_upgrade {

// The package files that an upgrade replaces. A package's index is part of the names of its marker and of its
// scripts' logs.
inline constexpr std::array<const wchar_t*, 8> UPGRADE_PACKAGES{
    L"Sorvane.Icon.Package.msix",
    L"Sorvane.Organize.Package.msix",
    L"Sorvane.Tag.Package.msix",
    L"Sorvane.Rate.Package.msix",
    L"Quorbel.Kindra.Package.msix",
    L"Quorbel.Paste.Package.msix",
    L"Quorbel.Comment.Package.msix",
    L"Quorbel.Plexa.Package.msix",
};

// For a script that works on one package.
inline constexpr DWORD PACKAGE_SCRIPT_LIMIT_MS = 120'000;

// The package's file in the suite's folder.
inline std::wstring installed_package(const context& context, std::size_t index)
{
    return join_path(context.product_directory, UPGRADE_PACKAGES.at(index));
}

// The copy of it from before the upgrade.
inline std::wstring saved_package(const context& context, std::size_t index)
{
    return join_path(context.workspace, UPGRADE_PACKAGES.at(index));
}

} // namespace custom_actions::controlled_upgrade
