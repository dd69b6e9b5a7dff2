#pragma once

#include "Quillvane/Progress.h"

#include <string>

/// The reports of an operation on standard error: one line with a bar that is written over and
/// over on a terminal, lines of text elsewhere.
///
/// Takes one report at a time, on any thread. What it cannot write it drops: progress is for people
/// who look on, and never a reason for an operation to fail.
class ProgressDisplay {
public:
    ProgressDisplay();
    /// Takes away a line that has not come to its end.
    ~ProgressDisplay();
    ProgressDisplay(const ProgressDisplay&) = delete;
    ProgressDisplay& operator=(const ProgressDisplay&) = delete;

    /// Before the first report of an operation that can't be cancelled any more it says so.
    void show(const Progress& progress);

private:
    void showLine(const Progress& progress);
    void showText(const std::string& message);

    bool onTerminal_;
    bool utf8_;
    bool cancellable_ = true;
    std::string shown_; ///< the last thing written
};

/// The report as one line for a terminal of `columns`, with a bar where there is room for one and
/// the fraction is known. Never as wide as the terminal, which would make it begin a new line.
std::string progressLine(const Progress& progress, std::size_t columns, bool utf8);

/// What two messages share when they tell the same step: a percentage counts in whole tens, so
/// "Copying… 42%" gives "Copying… 40%".
std::string progressStep(const std::string& message);
