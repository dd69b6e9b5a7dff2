#pragma once

#include "linux/hdiutil/ControlProtocol.h"

#include <linux/fuse.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

/// A mount for the test's duration; false where mounting is not permitted.
class Mounted {
public:
    Mounted(std::filesystem::path place, const char* type, const std::string& source,
            const std::string& options)
        : place_(std::move(place)),
          mounted_(::mount(source.c_str(), place_.c_str(), type, 0, options.c_str()) == 0) {}
    ~Mounted() { unmount(); }
    Mounted(const Mounted&) = delete;
    Mounted& operator=(const Mounted&) = delete;

    explicit operator bool() const noexcept { return mounted_; }
    void unmount() noexcept {
        if (std::exchange(mounted_, false)) ::umount2(place_.c_str(), MNT_DETACH);
    }

private:
    std::filesystem::path place_;
    bool mounted_;
};

/// An empty volume as our own disk-image tool would mount it, with a server that knows the root
/// directory only, and which file the volume is in if it is told.
class FuseMount {
public:
    /// `options` are of the kernel's file system.
    FuseMount(const std::filesystem::path& place, const std::string& source,
              std::optional<ImageIdentity> image = std::nullopt,
              const std::string& options = "user_id=0,group_id=0")
        : image_(image), device_(::open("/dev/fuse", O_RDWR | O_CLOEXEC)),
          mounted_(place, "fuse.quillvane", source,
                   "fd=" + std::to_string(device_) + ",rootmode=40000," + options) {
        if (mounted_) server_ = std::thread([this] { serve(); });
    }
    ~FuseMount() {
        mounted_.unmount(); // ends the server's read
        if (server_.joinable()) server_.join();
        if (device_ >= 0) ::close(device_);
    }
    FuseMount(const FuseMount&) = delete;
    FuseMount& operator=(const FuseMount&) = delete;

    explicit operator bool() const noexcept { return static_cast<bool>(mounted_); }

private:
    void serve() const {
        alignas(fuse_in_header) std::array<char, FUSE_MIN_READ_BUFFER> request{};
        for (;;) {
            const ssize_t got = ::read(device_, request.data(), request.size());
            if (got < 0 && (errno == EINTR || errno == ENOENT)) continue;
            if (got < static_cast<ssize_t>(sizeof(fuse_in_header))) return;
            fuse_in_header header{};
            std::memcpy(&header, request.data(), sizeof header);
            answer(header);
        }
    }

    void answer(const fuse_in_header& request) const {
        fuse_init_out init{};
        init.major = FUSE_KERNEL_VERSION;
        init.minor = FUSE_KERNEL_MINOR_VERSION;
        init.max_write = 4096;
        fuse_attr_out root{};
        root.attr.ino = FUSE_ROOT_ID;
        root.attr.mode = S_IFDIR | 0755;
        root.attr.nlink = 2;
        if (request.opcode == FUSE_INIT)
            reply(request, 0, &init, sizeof init);
        else if (request.opcode == FUSE_GETATTR && request.nodeid == FUSE_ROOT_ID)
            reply(request, 0, &root, sizeof root);
        else if (request.opcode == FUSE_IOCTL && image_)
            replyIdentity(request);
        else
            reply(request, -ENOSYS, nullptr, 0);
    }

    void replyIdentity(const fuse_in_header& request) const {
        struct {
            fuse_ioctl_out result;
            ImageIdentity image;
        } answer{{}, *image_};
        reply(request, 0, &answer, sizeof answer);
    }

    void reply(const fuse_in_header& request, int error, const void* body,
               std::size_t length) const {
        std::string message(sizeof(fuse_out_header) + length, '\0');
        const fuse_out_header header{static_cast<std::uint32_t>(message.size()), error,
                                     request.unique};
        std::memcpy(message.data(), &header, sizeof header);
        if (length > 0) std::memcpy(message.data() + sizeof header, body, length);
        // A request that was given up meanwhile takes no answer.
        [[maybe_unused]] const ssize_t written = ::write(device_, message.data(), message.size());
    }

    std::optional<ImageIdentity> image_;
    int device_;
    Mounted mounted_;
    std::thread server_;
};

/// The same after its server has died.
class DeadFuseMount {
public:
    DeadFuseMount(const std::filesystem::path& place, const std::string& source)
        : device_(::open("/dev/fuse", O_RDWR | O_CLOEXEC)),
          mounted_(place, "fuse.quillvane", source,
                   "fd=" + std::to_string(device_) + ",rootmode=40000,user_id=0,group_id=0") {
        if (device_ >= 0) ::close(device_);
    }
    explicit operator bool() const noexcept { return static_cast<bool>(mounted_); }

private:
    int device_;
    Mounted mounted_;
};
