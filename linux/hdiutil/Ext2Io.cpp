#include "Ext2Io.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <system_error>
#include <vector>

namespace {

constexpr std::size_t deviceBlock = BlockCache::blockSize;

BlockCache& cacheOf(io_channel channel) {
    return *static_cast<BlockCache*>(channel->private_data);
}

/// Runs `work`, turning what it throws into the error codes that libext2fs passes on.
template <typename Work> errcode_t guarded(Work work) {
    try {
        work();
        return 0;
    } catch (const std::system_error& error) {
        return error.code().value();
    } catch (const std::bad_alloc&) {
        return EXT2_ET_NO_MEMORY;
    } catch (const std::exception&) {
        return EIO;
    }
}

/// Reads any stretch of bytes, by whole blocks.
void readBytes(BlockCache& cache, std::uint64_t offset, std::size_t size, std::byte* into) {
    std::vector<std::byte> block(deviceBlock);
    while (size > 0) {
        const std::size_t within = offset % deviceBlock;
        const std::size_t part = std::min(size, deviceBlock - within);
        cache.read(offset / deviceBlock, block);
        std::memcpy(into, block.data() + within, part);
        offset += part;
        into += part;
        size -= part;
    }
}

void writeBytes(BlockCache& cache, std::uint64_t offset, std::size_t size, const std::byte* from) {
    std::vector<std::byte> block(deviceBlock);
    while (size > 0) {
        const std::size_t within = offset % deviceBlock;
        const std::size_t part = std::min(size, deviceBlock - within);
        if (part < deviceBlock) cache.read(offset / deviceBlock, block);
        std::memcpy(block.data() + within, from, part);
        cache.write(offset / deviceBlock, block);
        offset += part;
        from += part;
        size -= part;
    }
}

/// libext2fs counts blocks of the channel's size, or bytes when the count is negative.
std::size_t bytesOf(io_channel channel, int count) {
    return count < 0
               ? static_cast<std::size_t>(-static_cast<long>(count))
               : static_cast<std::size_t>(count) * static_cast<std::size_t>(channel->block_size);
}

errcode_t readBlocks(io_channel channel, unsigned long long block, int count, void* data) {
    return guarded([&] {
        const std::size_t size = bytesOf(channel, count);
        auto* into = static_cast<std::byte*>(data);
        const std::uint64_t offset = block * static_cast<unsigned>(channel->block_size);
        if (offset % deviceBlock == 0 && size % deviceBlock == 0)
            cacheOf(channel).read(offset / deviceBlock, {into, size});
        else
            readBytes(cacheOf(channel), offset, size, into);
    });
}

errcode_t writeBlocks(io_channel channel, unsigned long long block, int count, const void* data) {
    return guarded([&] {
        const std::size_t size = bytesOf(channel, count);
        const auto* from = static_cast<const std::byte*>(data);
        const std::uint64_t offset = block * static_cast<unsigned>(channel->block_size);
        if (offset % deviceBlock == 0 && size % deviceBlock == 0)
            cacheOf(channel).write(offset / deviceBlock, {from, size});
        else
            writeBytes(cacheOf(channel), offset, size, from);
    });
}

errcode_t readBlocksShort(io_channel channel, unsigned long block, int count, void* data) {
    return readBlocks(channel, block, count, data);
}

errcode_t writeBlocksShort(io_channel channel, unsigned long block, int count, const void* data) {
    return writeBlocks(channel, block, count, data);
}

errcode_t writeAtByte(io_channel channel, unsigned long offset, int size, const void* data) {
    return guarded([&] {
        writeBytes(cacheOf(channel), offset, static_cast<std::size_t>(size),
                   static_cast<const std::byte*>(data));
    });
}

errcode_t setBlockSize(io_channel channel, int blockSize) {
    channel->block_size = blockSize;
    return 0;
}

// libext2fs flushes after every superblock; what is written when is the volume's decision.
errcode_t flush(io_channel) {
    return 0;
}

errcode_t setOption(io_channel, const char*, const char*) {
    return EXT2_ET_INVALID_ARGUMENT;
}

errcode_t close(io_channel channel) {
    if (--channel->refcount > 0) return 0;
    std::free(channel->name);
    std::free(channel);
    return 0;
}

extern "C" errcode_t openChannel(const char* name, int flags, io_channel* channel);

struct_io_manager makeManager() {
    struct_io_manager manager{};
    manager.magic = EXT2_ET_MAGIC_IO_MANAGER;
    manager.name = "Quillvane encrypted image";
    manager.open = openChannel;
    manager.close = close;
    manager.set_blksize = setBlockSize;
    manager.read_blk = readBlocksShort;
    manager.write_blk = writeBlocksShort;
    manager.flush = flush;
    manager.write_byte = writeAtByte;
    manager.set_option = setOption;
    manager.read_blk64 = readBlocks;
    manager.write_blk64 = writeBlocks;
    return manager;
}

struct_io_manager& manager() {
    static struct_io_manager theManager = makeManager();
    return theManager;
}

// libext2fs knows a device by its name alone, so the name is the cache's address.
constexpr const char* nameFormat = "%p";

errcode_t openChannel(const char* name, int, io_channel* channel) {
    void* cache = nullptr;
    if (std::sscanf(name, nameFormat, &cache) != 1) return EXT2_ET_BAD_DEVICE_NAME;
    // libext2fs frees channels itself in places, with free().
    auto* made = static_cast<io_channel>(std::calloc(1, sizeof(struct_io_channel)));
    if (made == nullptr) return EXT2_ET_NO_MEMORY;
    made->magic = EXT2_ET_MAGIC_IO_CHANNEL;
    made->manager = &manager();
    made->name = ::strdup(name);
    made->block_size = 1024;
    made->refcount = 1;
    made->private_data = cache;
    *channel = made;
    return 0;
}

} // namespace

errcode_t Ext2Io::open(BlockCache& cache, int flags, ext2_filsys* fs) {
    std::array<char, 32> name{};
    (void)std::snprintf(name.data(), name.size(), nameFormat, static_cast<void*>(&cache));
    return ext2fs_open2(name.data(), nullptr, flags, 0, 0, &manager(), fs);
}
