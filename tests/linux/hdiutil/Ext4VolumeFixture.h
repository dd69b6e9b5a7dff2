#pragma once

#include "PlainVolume.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

inline const Caller me{1000, 1000, 022};

template <typename Work> int errnoFrom(Work work) {
    try {
        work();
    } catch (const std::system_error& error) {
        return error.code().value();
    }
    return 0;
}

inline ext2_ino_t numberOf(const struct stat& attributes) {
    return static_cast<ext2_ino_t>(attributes.st_ino);
}

inline std::vector<std::byte> pattern(std::size_t size, unsigned seed) {
    std::vector<std::byte> bytes(size);
    std::minstd_rand random(seed);
    for (std::byte& byte : bytes) byte = static_cast<std::byte>(random());
    return bytes;
}

/// A fresh volume, which a test fills and at its end finds sound.
class Ext4VolumeTest : public testing::Test {
protected:
    Ext4Volume& volume() { return disk.volume(); }
    ext2_ino_t makeFile(ext2_ino_t parent, std::string_view name, mode_t mode = 0644) {
        return numberOf(volume().create(parent, name, {S_IFREG | mode, 0, {}}, me));
    }
    ext2_ino_t makeDirectory(ext2_ino_t parent, std::string_view name) {
        return numberOf(volume().create(parent, name, {S_IFDIR | 0755, 0, {}}, me));
    }
    void expectClean() {
        disk.close();
        EXPECT_EQ(disk.check(), "");
    }
    std::vector<std::string> list(ext2_ino_t directory) {
        std::vector<std::string> names;
        volume().readDirectory(directory, 0, [&](const Directory::Entry& entry) {
            names.emplace_back(entry.name);
            return true;
        });
        return names;
    }

    static constexpr ext2_ino_t root = Ext4Volume::root;
    PlainVolume disk;
};
