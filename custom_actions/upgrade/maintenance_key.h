#pragma once

// The registry key that names the installer process which runs an upgrade, so that two never run at a time.
// A key that a crashed installer left behind is told from a live one by that process.
namespace custom_actions::controlled_upgrade {

// Takes the key for this process, whoever had it, or releases it, which may be gone already. Taking throws
// windows_error "Cannot establish upgrade guard" or "Cannot persist upgrade guard", and may leave a key
// without "Process" or with another's "Created", which is not live; releasing throws windows_error "Cannot
// release upgrade guard".
void upgrade_guard(bool acquire);

// Whether the key names a process that still runs; a process that may not be looked at counts as running.
bool guard_is_live();

} // namespace custom_actions::controlled_upgrade
