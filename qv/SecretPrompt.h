#pragma once

#include "qv/Interruption.h"
#include "qv/SecretSource.h"

#include <optional>
#include <string>
#include <termios.h>

/// Secrets typed on the controlling terminal, which shows nothing of them; a new one is typed
/// twice.
///
/// The terminal's echo is off from the first question until the object is destroyed, and while the
/// program is stopped by Ctrl-Z it is as it was.
class SecretPrompt : public SecretSource {
public:
    /// Throws `UsageError` when there is no terminal.
    SecretPrompt();
    ~SecretPrompt() override;

    Secret existing(std::string_view name) override;
    NewPassword fresh(std::string_view name) override;

private:
    Secret ask(const std::string& prompt);
    void awaitAnswer(const std::string& prompt);
    void silence();
    void restore();
    void say(std::string_view text) const;

    int terminal_;
    termios former_ = {};
    /// There while the terminal is silent: a signal must not end or stop the program then.
    std::optional<Interruption::InputWait> wait_;
};
