// Assistive technology finds what a program shows by walking down from the
// application's accessible object, whose children Qt takes from the top-level
// windows but popups (menus, the style popover): while one is open, only
// focus changes reach it. Installed, the application also lists the popups
// that are shown, after its windows.
#pragma once

namespace PopupAccessibility {

// Takes effect at once, also when the application's accessible object was
// made before; calling it again does nothing.
void install();

} // namespace PopupAccessibility
