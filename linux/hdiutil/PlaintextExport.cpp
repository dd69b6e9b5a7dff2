#include "PlaintextExport.h"

#include "BlockedSignals.h"
#include "FuseLoop.h"
#include "FuseSession.h"
#include "PlaintextFile.h"
#include "RuntimeDirectory.h"
#include "ToolError.h"
#include "Unmount.h"

#include <fuse_lowlevel.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <thread>

namespace {

using namespace std::chrono_literals;

constexpr const char* fileName = "volume";
constexpr fuse_ino_t fileInode = FUSE_ROOT_ID + 1;
// The kernel's limit for one request.
constexpr unsigned largestTransfer = 1024 * 1024;
// Nothing changes behind the kernel's back.
constexpr double unlimited = 3600;

PlaintextFile& fileOf(fuse_req_t request) {
    return *static_cast<PlaintextFile*>(fuse_req_userdata(request));
}

/// Runs the body of a request; a failure becomes its errno.
template <typename Body> void answer(fuse_req_t request, Body&& body) noexcept {
    int error = EIO;
    try {
        body();
        return;
    } catch (const std::system_error& failure) {
        error = failure.code().value();
    } catch (const std::bad_alloc&) {
        error = ENOMEM;
    } catch (const std::exception&) {
        error = EIO;
    }
    fuse_reply_err(request, error);
}

struct stat attributes(fuse_req_t request, fuse_ino_t inode) {
    struct stat result {};
    result.st_ino = inode;
    result.st_uid = ::geteuid();
    result.st_gid = ::getegid();
    result.st_nlink = 1;
    result.st_mode = S_IFDIR | 0700;
    if (inode == fileInode) {
        result.st_mode = S_IFREG | 0600;
        result.st_size = static_cast<off_t>(fileOf(request).size());
        result.st_blocks = result.st_size / 512;
        result.st_blksize = EncryptedImage::blockSize;
    }
    return result;
}

void onInit(void*, fuse_conn_info* connection) {
    connection->max_write = largestTransfer;
    connection->max_readahead = largestTransfer;
}

void onLookup(fuse_req_t request, fuse_ino_t parent, const char* name) {
    if (parent != FUSE_ROOT_ID || std::strcmp(name, fileName) != 0) {
        fuse_reply_err(request, ENOENT);
        return;
    }
    fuse_entry_param entry{};
    entry.ino = fileInode;
    entry.attr = attributes(request, fileInode);
    entry.attr_timeout = unlimited;
    entry.entry_timeout = unlimited;
    fuse_reply_entry(request, &entry);
}

void onGetattr(fuse_req_t request, fuse_ino_t inode, fuse_file_info*) {
    const struct stat found = attributes(request, inode);
    fuse_reply_attr(request, &found, unlimited);
}

void onOpen(fuse_req_t request, fuse_ino_t, fuse_file_info* file) {
    fuse_reply_open(request, file);
}

void onRead(fuse_req_t request, fuse_ino_t, size_t size, off_t offset, fuse_file_info*) {
    answer(request, [&] {
        const auto bytes = fileOf(request).read(static_cast<std::uint64_t>(offset), size);
        fuse_reply_buf(request, reinterpret_cast<const char*>(bytes.data()), bytes.size());
    });
}

void onWrite(fuse_req_t request, fuse_ino_t, const char* data, size_t size, off_t offset,
             fuse_file_info*) {
    answer(request, [&] {
        fileOf(request).write(static_cast<std::uint64_t>(offset),
                              std::as_bytes(std::span(data, size)));
        fuse_reply_write(request, size);
    });
}

void onFsync(fuse_req_t request, fuse_ino_t, int, fuse_file_info*) {
    answer(request, [&] {
        fileOf(request).sync();
        fuse_reply_err(request, 0);
    });
}

void onFallocate(fuse_req_t request, fuse_ino_t, int, off_t, off_t, fuse_file_info*) {
    // Punched holes would read as random bytes, and the programs fall back to writing zeros.
    fuse_reply_err(request, EOPNOTSUPP);
}

fuse_lowlevel_ops operations() {
    fuse_lowlevel_ops result{};
    result.init = onInit;
    result.lookup = onLookup;
    result.getattr = onGetattr;
    result.open = onOpen;
    result.read = onRead;
    result.write = onWrite;
    result.fsync = onFsync;
    result.fallocate = onFallocate;
    return result;
}

/// A new directory below the runtime directory, removed at the end.
class PrivateDirectory {
public:
    PrivateDirectory() : path_((runtimeDirectory() / "export-XXXXXX").string()) {
        if (::mkdtemp(path_.data()) == nullptr)
            throw std::system_error(errno, std::generic_category(), path_);
    }
    ~PrivateDirectory() { ::rmdir(path_.c_str()); }
    PrivateDirectory(const PrivateDirectory&) = delete;
    PrivateDirectory& operator=(const PrivateDirectory&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

FuseSession mountedSession(PlaintextFile& file, const std::string& directory) {
    FuseSession session =
        mountFuse(directory, "fsname=quillvane,subtype=quillvane-export,nosuid,nodev,noexec",
                  operations(), &file);
    if (!session)
        throw ToolError("the image's contents could not be shown to the file system's programs");
    return session;
}

} // namespace

class PlaintextExport::Mount {
public:
    explicit Mount(EncryptedImage& image)
        : file_(image), session_(mountedSession(file_, directory_.path())), loop_(session_.get()) {
        const BlockedSignals blocked; // for the thread; ending signals are the caller's business
        thread_ = std::thread([this] { loop_.run(); });
    }
    ~Mount() {
        end();
        thread_.join();
    }
    Mount(const Mount&) = delete;
    Mount& operator=(const Mount&) = delete;

    const std::string& path() const { return directory_.path(); }
    int failure() const noexcept { return file_.failure(); }

private:
    // An indexer may be looking in for a moment; the export ends all the same.
    void end() noexcept {
        for (int attempt = 0; attempt < 20; ++attempt) {
            try {
                unmount(directory_.path());
                return;
            } catch (const std::system_error& error) {
                if (error.code().value() != EBUSY) break;
                std::this_thread::sleep_for(10ms);
            }
        }
        try {
            unmountLazily(directory_.path());
        } catch (const std::system_error&) {
            // Not mounted any more.
        }
        loop_.stop();
    }

    PrivateDirectory directory_;
    PlaintextFile file_;
    FuseSession session_;
    FuseLoop loop_;
    std::thread thread_;
};

PlaintextExport::PlaintextExport(EncryptedImage& image) : mount_(std::make_unique<Mount>(image)) {}

PlaintextExport::~PlaintextExport() = default;

std::filesystem::path PlaintextExport::file() const {
    return std::filesystem::path(mount_->path()) / fileName;
}

int PlaintextExport::failure() const noexcept {
    return mount_->failure();
}
