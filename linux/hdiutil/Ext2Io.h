#pragma once

#include "BlockCache.h"

#include <ext2fs/ext2fs.h>

/// Lets libext2fs work on an encrypted image through a `BlockCache`.
namespace Ext2Io {

/// Opens the file system behind `cache`, which must outlive it. `flags` are those of ext2fs_open2.
errcode_t open(BlockCache& cache, int flags, ext2_filsys* fs);

} // namespace Ext2Io
