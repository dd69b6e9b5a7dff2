#include "InterruptedEnding.h"
#include "RecoveryError.h"

#include <algorithm>

// An operation on what an earlier one like it has left.

namespace InterruptedWork {
namespace {

void silent(const Progress&) {}

/// What was interrupted with this folder, or with the item of this name.
std::vector<Found> findAt(const Path& path, OperationNote::Operation operation) {
    auto found = findIn(path.parent_path());
    std::erase_if(found, [&](const Found& one) {
        return !canBeEnded(one) || one.contents.operation != operation ||
               place(one).filename() != path.filename();
    });
    return found;
}

} // namespace

void makeWayToProtect(const Path& folder, const Credential& credential,
                      Cancellation* cancellation) {
    const std::optional<Credential> given = credential;
    for (const Found& found : findAt(folder, OperationNote::Operation::protect)) {
        switch (found.state) {
        case State::named: // a recovery key that may not have been shown is still worth telling
            continue;
        case State::deleting:
        case State::unnamed:
        case State::imageMissing:
            throw InterruptedWorkError(text(found));
        default:
            break;
        }
        try {
            undoFirstHalf(found, given, silent, cancellation);
        } catch (const RecoveryError&) {
            throw InterruptedWorkError(text(found)); // its password is another
        }
    }
}

std::optional<Path> makeWayToRemove(const Path& item, const Credential& credential,
                                    Cancellation* cancellation) {
    const std::optional<Credential> given = credential;
    for (const Found& found : findAt(item, OperationNote::Operation::remove)) {
        if (found.state == State::restored)
            return finish(found, given, silent, cancellation).result;
        if (found.state == State::opened || found.state == State::incomplete)
            undoFirstHalf(found, given, silent, cancellation);
    }
    return std::nullopt;
}

} // namespace InterruptedWork
