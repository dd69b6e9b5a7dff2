#pragma once

#include "MountTable.h"
#include "Quillvane/FileDescriptor.h"

#include <QObject>
#include <QSocketNotifier>
#include <QTimer>

#include <filesystem>
#include <memory>
#include <vector>

/// The places where a volume of ours was mounted `before` and none is `after`, in the former's
/// order, each once.
std::vector<std::filesystem::path> vanishedVolumes(const MountTable& before,
                                                   const MountTable& after);

/// Tells which volumes are unmounted, by whomever, as soon as the kernel says that mounts changed.
class MountWatcher : public QObject {
    Q_OBJECT

public:
    /// Where mounts cannot be watched nothing is ever told.
    MountWatcher();

signals:
    void unmounted(const std::filesystem::path& mountPoint);

private:
    void compare();
    /// What the open file says now. Throws `std::system_error`.
    MountTable read() const;
    /// Whether mounts changed since this was last asked, here or by the notifier.
    bool changedAgain() const;

    FileDescriptor file_;
    MountTable known_{""};
    std::unique_ptr<QSocketNotifier> changes_;
    QTimer again_;
};
