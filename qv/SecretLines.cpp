#include "qv/SecretLines.h"

#include "qv/Interruption.h"

#include <stdexcept>
#include <string>
#include <unistd.h>

Secret SecretLines::existing(std::string_view name) {
    Interruption::InputWait wait(/*watchStop=*/false);
    auto line = readSecretLine(STDIN_FILENO, [&] { wait.untilReadable(STDIN_FILENO); });
    if (line) return std::move(*line);
    throw std::runtime_error("Standard input has no line for this: " + std::string(name) + ".");
}

NewPassword SecretLines::fresh(std::string_view name) {
    Secret line = existing(name);
    return {line, line};
}
