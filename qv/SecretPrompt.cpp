#include "qv/SecretPrompt.h"

#include "Quillvane/OperationCancelled.h"
#include "qv/Arguments.h"

#include <cerrno>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

SecretPrompt::SecretPrompt() : terminal_(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY)) {
    if (terminal_ < 0) {
        throw UsageError("There is no terminal to ask on. Give the secrets on standard input, "
                         "with --stdin.");
    }
}

SecretPrompt::~SecretPrompt() {
    restore();
    close(terminal_);
}

Secret SecretPrompt::existing(std::string_view name) {
    return ask(std::string(name) + ": ");
}

NewPassword SecretPrompt::fresh(std::string_view name) {
    Secret password = ask(std::string(name) + ": ");
    Secret confirmation = ask(std::string(name) + " again: ");
    return {std::move(password), std::move(confirmation)};
}

Secret SecretPrompt::ask(const std::string& prompt) {
    // Before the question appears, so that an answer that comes at once is not shown either.
    silence();
    say(prompt);
    try {
        auto line = readSecretLine(terminal_, [&] { awaitAnswer(prompt); });
        say("\n"); // the user's own line feed was not shown
        if (line) return std::move(*line);
    } catch (const OperationCancelled&) {
        say("\n");
        throw;
    }
    throw OperationCancelled(); // Ctrl-D in place of an answer
}

void SecretPrompt::awaitAnswer(const std::string& prompt) {
    while (wait_->untilReadable(terminal_) == Interruption::InputWait::End::stopped) {
        restore();
        say("\n");
        Interruption::stopProcess();
        silence();
        say(prompt);
    }
}

void SecretPrompt::silence() {
    if (wait_) return;
    if (tcgetattr(terminal_, &former_) != 0) {
        throw std::system_error(errno, std::generic_category());
    }
    termios silent = former_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
    silent.c_lflag |= ICANON | ISIG;
    wait_.emplace(/*watchStop=*/true);
    if (tcsetattr(terminal_, TCSAFLUSH, &silent) != 0) {
        const int problem = errno;
        wait_.reset();
        throw std::system_error(problem, std::generic_category());
    }
}

void SecretPrompt::restore() {
    if (!wait_) return;
    // What was typed too much is dropped: it may be a password, and the shell would show it.
    tcsetattr(terminal_, TCSAFLUSH, &former_);
    wait_.reset();
}

void SecretPrompt::say(std::string_view text) const {
    // A terminal that takes no text has nobody in front of it; the read that follows notices.
    [[maybe_unused]] const ssize_t written = write(terminal_, text.data(), text.size());
}
