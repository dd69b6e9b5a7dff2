#pragma once

#include "linux/hdiutil/EncryptedImage.h"
#include "linux/hdiutil/Ext4Volume.h"

#include <filesystem>
#include <memory>
#include <string>

/// An encrypted image in a temporary directory that holds a fresh ext4, without header or mount.
///
/// The ext4 is made by mke2fs in a plain file and encrypted block by block, so that the volume code
/// meets a file system that it has not made; `check` goes the other way and asks e2fsck.
class PlainVolume {
public:
    /// `megabytes` of ext4; `options` go to mke2fs besides the block and inode sizes.
    explicit PlainVolume(unsigned megabytes = 64, const std::string& options = "");
    ~PlainVolume();
    PlainVolume(const PlainVolume&) = delete;
    PlainVolume& operator=(const PlainVolume&) = delete;

    EncryptedImage& image() { return *image_; }
    /// Opens the volume if it is not open.
    Ext4Volume& volume();
    /// Closes the volume cleanly.
    void close();
    /// Drops the volume as a crash would: nothing that was not written is written.
    void crash();
    /// What e2fsck says of the plaintext: "" when it finds nothing wrong.
    std::string check(const std::string& options = "-fn");
    /// The plaintext as a file, for other programs to look at or change.
    std::filesystem::path decrypt();
    /// Takes what a program made of the plaintext back into the image.
    void encrypt(const std::filesystem::path& plain);
    std::filesystem::path directory() const { return directory_; }

private:
    std::filesystem::path directory_;
    std::unique_ptr<EncryptedImage> image_;
    std::unique_ptr<Ext4Volume> volume_;
};
