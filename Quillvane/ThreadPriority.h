#pragma once

/// From now on the calling thread gives way to what the user is waiting for. Best effort. One body
/// per system stands in the folder named after it.
void useUtilityPriority() noexcept;
