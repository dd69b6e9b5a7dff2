#pragma once

#include "qv/SecretSource.h"

/// Secrets from standard input, one on each line, byte for byte; a new one is given once.
///
/// A line that is not there is a `std::runtime_error`.
class SecretLines : public SecretSource {
public:
    Secret existing(std::string_view name) override;
    NewPassword fresh(std::string_view name) override;
};
