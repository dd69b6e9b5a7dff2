#pragma once

#include <QIcon>

/// The application's icon as this system keeps it; null when it is missing or cannot be read. One
/// body per system stands in the folder named after it. For the main thread.
QIcon appIcon();
