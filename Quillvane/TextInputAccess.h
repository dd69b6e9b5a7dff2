#pragma once

/// What assistive technology sees of lines of text that are typed into.
namespace TextInputAccess {

/// From now on a masked line shows assistive technology its mask, where the toolkit's own way would
/// hand out the password to every program that asks. To be called once, before any window is made.
void install();

} // namespace TextInputAccess
