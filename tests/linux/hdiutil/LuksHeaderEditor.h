#pragma once

#include "ScratchImage.h"

#include <functional>
#include <nlohmann/json.hpp>

/// Changes the metadata of a LUKS2 header in both of its copies and makes the checksums right
/// again, as an attacker with the file in his hands would.
void editLuksHeader(ScratchImage& image, const std::function<void(nlohmann::json&)>& change);
