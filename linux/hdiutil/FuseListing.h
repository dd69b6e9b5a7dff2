#pragma once

#include <cstddef>
#include <fuse_lowlevel.h>

/// The callbacks that list directories.
namespace FuseOperations {

void readDirectory(fuse_req_t request, fuse_ino_t node, std::size_t size, off_t from,
                   fuse_file_info* file);
/// With the attributes of each entry, which the kernel references from then on.
void readDirectoryPlus(fuse_req_t request, fuse_ino_t node, std::size_t size, off_t from,
                       fuse_file_info* file);

} // namespace FuseOperations
