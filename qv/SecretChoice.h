#pragma once

#include "Quillvane/Credential.h"
#include "qv/Arguments.h"
#include "qv/SecretSource.h"

#include <memory>
#include <string_view>

/// Where the command line says that secrets come from. Throws `UsageError` when they are to be
/// typed and there is no terminal.
std::unique_ptr<SecretSource> secretSource(const Arguments& arguments);

/// Asks for the password, by this name, or for the recovery key, as the command line says.
Credential askCredential(SecretSource& source, const Arguments& arguments,
                         std::string_view passwordName);
