#include "VaultEngine.h"

#include "ErrorText.h"
#include "OperationCancelled.h"
#include "Platform.h"
#include "TreeComparison.h"
#include "TreeWalk.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <system_error>
#include <thread>

// Measuring, copying and comparing folders.

namespace VaultEngine {
namespace {

namespace fs = std::filesystem;

class TallyWalk final : public TreeWalk {
public:
    explicit TallyWalk(const Cancellation* cancellation) : cancellation_(cancellation) {}

    Tallies run(const Path& root) {
        try {
            walk(root);
        } catch (const fs::filesystem_error&) {
            // The tree was rearranged meanwhile: what was counted is the best estimate there is.
        }
        return tallies_;
    }

private:
    void file(int, const std::string&, const struct stat& status) override {
        stopIfCancelled();
        if (!S_ISREG(status.st_mode)) return;
        ++tallies_.count;
        if (__builtin_add_overflow(tallies_.bytes, status.st_size, &tallies_.bytes))
            tallies_.bytes = std::numeric_limits<std::int64_t>::max();
    }
    void enter(int, const std::string&, const struct stat&) override { stopIfCancelled(); }
    void failed(const std::string&, int) override {}
    void stopIfCancelled() const {
        if (cancellation_ != nullptr && cancellation_->requested()) throw OperationCancelled();
    }

    const Cancellation* cancellation_;
    Tallies tallies_;
};

/// Tells the poller to end.
class StopFlag {
public:
    void stop() {
        {
            const std::lock_guard lock(mutex_);
            stopped_ = true;
        }
        changed_.notify_all();
    }
    /// Waits for `pause`, or less when stopped; true when stopped.
    bool stoppedAfter(std::chrono::milliseconds pause) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, pause, [this] { return stopped_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool stopped_ = false;
};

double fractionCopied(std::int64_t used, std::int64_t baseline, std::int64_t total) {
    constexpr double mostReported = 0.98; // the step after the copy moves the bar on
    if (total < 1) return 0;
    const double copied = std::max(0.0, static_cast<double>(used) - static_cast<double>(baseline));
    return std::min(mostReported, copied / static_cast<double>(total));
}

/// Reports on a copy, on a thread of its own, until destroyed.
class CopyPoller {
public:
    CopyPoller(const Path& watchMount, std::int64_t baselineBytes, std::int64_t totalBytes,
               const std::function<void(double)>& progress)
        : thread_([=, this] {
              constexpr std::chrono::milliseconds pause{400};
              do progress(fractionCopied(usedBytes(watchMount), baselineBytes, totalBytes));
              while (!flag_.stoppedAfter(pause));
          }) {}
    ~CopyPoller() {
        flag_.stop();
        thread_.join();
    }
    CopyPoller(const CopyPoller&) = delete;
    CopyPoller& operator=(const CopyPoller&) = delete;

private:
    StopFlag flag_;
    std::thread thread_; // last: it uses the flag
};

} // namespace

Tallies tallies(const Path& url, Cancellation* cancellation) {
    std::error_code error;
    if (!fs::is_directory(url, error)) {
        const auto size = fs::file_size(url, error);
        return error ? Tallies{} : Tallies{1, static_cast<std::int64_t>(size)};
    }
    const Path real = fs::canonical(url, error);
    return TallyWalk(cancellation).run(error ? url : real);
}

std::int64_t availableCapacity(const Path& url) {
    return Platform::availableCapacity(url);
}

std::int64_t usedBytes(const Path& path) {
    return Platform::volumeUsedBytes(path);
}

ProcessResult dittoWithProgress(const Path& from, const Path& to, std::int64_t totalBytes,
                                const Path& watchMount, std::int64_t baselineBytes,
                                const std::function<void(double)>& progress,
                                Cancellation* cancellation) {
    const CopyPoller poller(watchMount, baselineBytes, totalBytes, progress);
    return ProcessRunner::run(Platform::tools().ditto, {from.string(), to.string()}, std::nullopt,
                              cancellation);
}

std::optional<std::string> verifyTopLevel(const Path& source, const Path& dest, bool skipSystem) {
    std::error_code error;
    fs::directory_iterator entry(source, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (skipSystem && systemVolumeItems().contains(name)) continue;
        std::error_code unreadable; // counts as missing
        if (!fs::exists(fs::symlink_status(dest / name, unreadable)))
            return "Missing: \"" + name + "\".";
    }
    if (error) return "Couldn't read the folder: " + error.message();
    return std::nullopt;
}

std::optional<std::string> verifyCopy(const Path& source, const Path& dest,
                                      const Cancellation* cancellation) {
    if (auto missing = verifyTopLevel(source, dest, true)) return missing;
    if (Platform::tools().dittoCompares) return std::nullopt;
    const auto found =
        TreeComparison::compare(source, dest, TreeComparison::Files::finished, cancellation);
    // The root of a volume need not be able to keep everything that a folder can.
    const bool onlyRoot = found.count == 1 && found.first.front().empty();
    if (found.count == 0 || onlyRoot) return std::nullopt;
    const Path& first = found.first.front().empty() ? found.first.at(1) : found.first.front();
    return "Not the same in the copy: \"" + first.string() + "\".";
}

bool isDirectoryEmpty(const Path& url) {
    std::error_code error;
    const fs::directory_iterator entry(url, error);
    return !error && entry == fs::directory_iterator();
}

const std::set<std::string>& systemVolumeItems() {
    static const std::set<std::string> names{".Trashes",
                                             ".fseventsd",
                                             ".Spotlight-V100",
                                             ".DS_Store",
                                             ".DocumentRevisions-V100",
                                             ".TemporaryItems",
                                             ".apdisk",
                                             ".VolumeIcon.icns",
                                             ".metadata_never_index"};
    return names;
}

} // namespace VaultEngine
