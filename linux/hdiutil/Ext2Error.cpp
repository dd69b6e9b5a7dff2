#include "Ext2Error.h"

#include <ext2fs/ext2fs.h>

#include <cerrno>
#include <system_error>

void failWith(int error) {
    throw std::system_error(error, std::generic_category());
}

int errnoOf(errcode_t code) {
    // Codes of libext2fs begin at EXT2_ET_BASE; what lies below comes from the system.
    if (code > 0 && code < 1024) return static_cast<int>(code);
    switch (code) {
    case EXT2_ET_BLOCK_ALLOC_FAIL:
    case EXT2_ET_INODE_ALLOC_FAIL:
    case EXT2_ET_DIR_NO_SPACE:
    case EXT2_ET_EA_NO_SPACE:
    case EXT2_ET_EXTENT_NO_SPACE:
        return ENOSPC;
    case EXT2_ET_EA_KEY_NOT_FOUND:
        return ENODATA;
    case EXT2_ET_NO_MEMORY:
        return ENOMEM;
    case EXT2_ET_FILE_TOO_BIG:
        return EFBIG;
    case EXT2_ET_RO_FILSYS:
        return EROFS;
    case EXT2_ET_INODE_CSUM_INVALID:
    case EXT2_ET_INODE_BITMAP_CSUM_INVALID:
    case EXT2_ET_EXTENT_CSUM_INVALID:
    case EXT2_ET_DIR_CSUM_INVALID:
    case EXT2_ET_EXT_ATTR_CSUM_INVALID:
    case EXT2_ET_SB_CSUM_INVALID:
    case EXT2_ET_BLOCK_BITMAP_CSUM_INVALID:
    case EXT2_ET_DIR_CORRUPTED:
    case EXT2_ET_EXTENT_HEADER_BAD:
    case EXT2_ET_EXTENT_LEAF_BAD:
    case EXT2_ET_EXTENT_INDEX_BAD:
    case EXT2_ET_INODE_IS_GARBAGE:
    case EXT2_ET_EXTENT_NOT_SUPPORTED:
    case EXT2_ET_EXTENT_INVALID_LENGTH:
    case EXT2_ET_EXTENT_CYCLE:
    case EXT2_ET_BAD_BLOCK_NUM:
    case EXT2_ET_BAD_INODE_NUM:
    case EXT2_ET_BAD_EA_BLOCK_NUM:
    case EXT2_ET_BAD_EA_HEADER:
    case EXT2_ET_BAD_EA_HASH:
    case EXT2_ET_MISSING_EA_FEATURE:
    case EXT2_ET_BAD_IND_BLOCK:
    case EXT2_ET_BAD_DIND_BLOCK:
    case EXT2_ET_BAD_TIND_BLOCK:
    case EXT2_ET_INODE_CORRUPTED:
    case EXT2_ET_FILESYSTEM_CORRUPTED:
    case EXT2_ET_EA_BAD_NAME_LEN:
    case EXT2_ET_EA_BAD_VALUE_SIZE:
    case EXT2_ET_EA_BAD_VALUE_OFFSET:
        return EUCLEAN;
    default:
        return EIO;
    }
}

void check(errcode_t code) {
    if (code != 0) failWith(errnoOf(code));
}
