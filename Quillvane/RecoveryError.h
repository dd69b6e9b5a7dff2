#pragma once

#include <exception>
#include <string>

/// What can go wrong with key material.
class RecoveryError : public std::exception {
public:
    enum class Case {
        invalidRecoveryKey,
        metadataMissing,
        metadataCorrupt,
        wrongPassword,
        wrapFailed,
    };

    explicit RecoveryError(Case kind) noexcept : kind_(kind) {}

    Case kind() const noexcept { return kind_; }
    /// The sentence for the user.
    std::string errorDescription() const { return what(); }
    const char* what() const noexcept override;

    friend bool operator==(const RecoveryError& a, const RecoveryError& b) noexcept {
        return a.kind_ == b.kind_;
    }

private:
    Case kind_;
};
