#pragma once

#include "linux/ditto/FileError.h"

#include <string>
#include <vector>

/// The names of all entries of the open directory `directory`, without "." and "..", in the order
/// of their inode numbers: close to the order on the disk, where reading them is fastest.
/// Reads from the start, whatever was read from the descriptor before. Throws FileError.
std::vector<std::string> listDirectory(Side side, int directory);
