#pragma once

#include "Confinement.h"
#include "Observation.h"

#include <chrono>
#include <ostream>

/// What happens at one of the calls that change the disk.
struct Fault {
    enum class Kind {
        none,
        stop,      ///< everything ends before the call is made
        kill,      ///< the process that makes the call is killed before it is made
        error,     ///< the call fails
        errors,    ///< the call fails, and so does each later one that the error would befall
        meanwhile, ///< a program of somebody else runs before the call is made
    } kind = Kind::none;
    std::uint64_t at = 0; ///< the call's number; the first is 1
    std::string program;  ///< counting only the calls of this one; of all when empty
    int error = 0;
    std::string meanwhile; ///< the program's path
};

/// Answers the calls of commands, and counts and logs those of the last command that change
/// something at or below a directory.
///
/// One line for each, with tabs between: its number, the program, the call, "disk" or "volume",
/// the path and, where there is one, the second path, in which everything but plain characters is
/// escaped as \xNN. The last line begins with "=" and says how the run has ended:
///   = stopped                       at the fault
///   = exited STATUS alone|attended  whether other processes were still there in the end
///   = killed SIGNAL alone|attended
class Supervisor {
public:
    struct Limits {
        std::chrono::seconds settling{0}; ///< time for other processes to end after the command
        std::chrono::seconds all{120};    ///< a run that takes longer fails
    };

    Supervisor(Confinement& confinement, std::string directory, const Fault& fault,
               const Limits& limits, std::ostream& log);

    /// Returns when everything has ended. Throws `std::runtime_error` when a command before the
    /// last has failed, something changes files unseen, or the time is up.
    void run();

private:
    using Clock = std::chrono::steady_clock;

    bool finished() const;
    void waitForEvent();
    void takeMessage();
    void takeCall();
    bool changesDirectory(const seccomp_notif& request, const Call& call,
                          const Observation& observation) const;
    void requireSeen(const seccomp_notif& request, const Call& call,
                     const Observation& observation) const;
    void record(const std::string& program, const Call& call, const Observation& observation);
    /// Counts a call of this program.
    bool isFaultAt(const std::string& program);
    bool fails(const Call& call, bool now) const;
    void runMeanwhile() const;
    void answer(std::uint64_t id, int error) const;
    void writeEnd();

    Confinement& confinement_;
    std::string directory_;
    Fault fault_;
    Limits limits_;
    std::ostream& log_;
    Clock::time_point deadline_;
    std::uint64_t count_ = 0;
    std::uint64_t faultCount_ = 0; ///< of the calls that the fault's number counts
    bool counting_ = false;
    bool stopped_ = false;
    bool alone_ = false;
    std::optional<int> status_;
};
