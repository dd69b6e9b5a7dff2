#pragma once

/// What assistive technology sees of the window.
namespace Accessibility {

/// From now on our own interfaces stand for the window's items: the toolkit's would call what is
/// disabled usable, and hand out passwords to every program that asks. To be called once, before
/// any window is made.
void install();

} // namespace Accessibility
