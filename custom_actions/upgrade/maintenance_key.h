#pragma once

// The maintenance key: the registry key that names the installer process which runs an upgrade, so that no
// two run at a time. A key that a crashed installer left behind is recognised by that process, which is gone.
namespace custom_actions::controlled_upgrade {

// Takes the maintenance key for this process, whoever had it, or releases it; it may be gone already. Taking
// throws windows_error "Cannot establish upgrade guard" or "Cannot persist upgrade guard"; the key that it
// may leave then is not live. Releasing throws windows_error "Cannot release upgrade guard".
void upgrade_guard(bool acquire);

// Whether the maintenance key names a process that still runs. A process that may not be opened counts as
// running.
bool guard_is_live();

} // namespace custom_actions::controlled_upgrade
