#pragma once

#include <filesystem>

/// True when the file manager shows the folder as one file, as it does an application.
bool isPackage(const std::filesystem::path& folder);
