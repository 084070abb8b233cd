#pragma once

namespace custom_actions {

// Puts back, for each drive letter, the icon that the current user's drive had before the suite applied its
// own, or removes the override. A drive whose icon was changed since is left alone, with the suite's values
// beside it. Returns false if an icon could not be put back; the other letters are restored all the same.
// Throws std::bad_alloc alone.
bool restore_drive_icons();

} // namespace custom_actions
