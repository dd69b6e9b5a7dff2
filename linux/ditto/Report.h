#pragma once

#include <atomic>
#include <cstddef>
#include <mutex>
#include <ostream>
#include <string_view>

/// The messages of one run, a line each, in the form "ditto: PATH: TEXT".
///
/// Only the first `printedProblems` problems are printed; `finish` tells how many more there were.
/// Several threads may report.
class Report {
public:
    static constexpr std::size_t printedProblems = 20;

    /// `out` must outlive the report.
    explicit Report(std::ostream& out) : out_(out) {}

    /// Something that makes the copy a failure.
    void problem(std::string_view path, std::string_view text);
    /// Something worth a line that is no failure.
    void note(std::string_view path, std::string_view text);
    void finish();
    std::size_t problems() const noexcept { return problems_; }

private:
    std::ostream& out_;
    std::mutex writing_;
    std::atomic<std::size_t> problems_ = 0;
};
