#include "linux/ditto/Report.h"

#include "Quillvane/PrintableText.h"

void Report::problem(std::string_view path, std::string_view text) {
    if (++problems_ <= printedProblems) note(path, text);
}

void Report::note(std::string_view path, std::string_view text) {
    const std::lock_guard lock(writing_);
    out_ << "ditto: " << printable(path) << ": " << text << '\n';
}

void Report::finish() {
    if (problems_ > printedProblems) {
        out_ << "ditto: ... and " << problems_ - printedProblems << " more\n";
    }
    out_.flush();
}
