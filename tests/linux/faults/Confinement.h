#pragma once

#include "Quillvane/FileDescriptor.h"

#include <optional>
#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <vector>

/// Thrown where the system does not offer what is needed.
struct NotSupported : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Commands that run one after the other in a process and mount namespace of their own, whose first
/// process takes everything with it when it is killed.
class Confinement {
public:
    using Command = std::vector<std::string>;

    struct Options {
        std::vector<Command> commands;
        std::string standardInput = "/dev/null"; ///< opened anew for each command
        std::optional<uid_t> user;               ///< who runs them, instead of root
    };

    /// What the namespace's first process tells.
    struct Message {
        enum class Kind : std::int32_t {
            failed,     ///< an earlier command than the last has failed: `status`
            lastBegins, ///< the last command begins once `proceed` was called
            ended,      ///< the last command has ended with `status`
            alone,      ///< and no other process is left
        } kind;
        std::int32_t status; ///< as `waitpid` tells it
    };

    /// Starts the first process; all of its system calls of interest wait for the listener's
    /// answer. Throws `NotSupported`.
    explicit Confinement(const Options& options);
    ~Confinement() { kill(); }
    Confinement(const Confinement&) = delete;
    Confinement& operator=(const Confinement&) = delete;

    int listener() const { return listener_.get(); }
    /// Readable when there is a message.
    int messages() const { return socket_.get(); }
    /// Nothing when the first process has ended.
    std::optional<Message> receive() const;
    void proceed() const;

    /// Ends all processes at once and waits for them; calls that wait are never made.
    void kill() noexcept;

private:
    pid_t first_ = -1;
    FileDescriptor socket_;
    FileDescriptor listener_;
};
