#include "InterruptedLabels.h"

namespace InterruptedWork {

std::string finishLabel(const Found& found) {
    switch (found.state) {
    case State::unfinished:
        return "Protect it now";
    case State::copied:
    case State::deleting:
    case State::unnamed:
        return "Finish protecting";
    case State::opened:
    case State::incomplete:
    case State::restored:
        return "Finish removing";
    case State::keyFileLeft:
        return "Delete the key file";
    case State::imageMissing:
    case State::itemMissing:
        return "Don't tell again"; // what is missing may turn up
    default:
        return "OK";
    }
}

std::string undoLabel(const Found& found) {
    switch (found.state) {
    case State::unfinished:
        return "Clean up";
    case State::copied:
        return "Keep the folder";
    case State::deleting:
    case State::unnamed:
        return "Give the folder back";
    case State::opened:
        return "Close the item";
    case State::incomplete:
        return "Delete the incomplete folder";
    case State::restored:
        return "Keep it protected";
    case State::keyFileLeft:
        return "Keep the key file";
    default:
        return {};
    }
}

bool isChoice(const Found& found) noexcept {
    return canBeEnded(found) && found.state != State::named;
}

} // namespace InterruptedWork
