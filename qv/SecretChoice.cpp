#include "qv/SecretChoice.h"

#include "qv/SecretLines.h"
#include "qv/SecretPrompt.h"

std::unique_ptr<SecretSource> secretSource(const Arguments& arguments) {
    if (arguments.secretsFromStandardInput) return std::make_unique<SecretLines>();
    return std::make_unique<SecretPrompt>();
}

Credential askCredential(SecretSource& source, const Arguments& arguments,
                         std::string_view passwordName) {
    if (arguments.useRecoveryKey) return Credential::recoveryKey(source.existing("Recovery key"));
    return Credential::password(source.existing(passwordName));
}
