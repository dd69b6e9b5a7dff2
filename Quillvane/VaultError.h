#pragma once

#include <cstdint>
#include <exception>
#include <string>

/// The error of every operation on items; each case is one sentence for the user.
class VaultError : public std::exception {
public:
    enum class Case {
        alreadyLocked,
        insufficientSpace,
        createFailed,
        attachFailed,
        copyFailed,
        verificationFailed,
        detachFailed,
        deleteFailed,
        renameFailed,
        targetFolderExists,
        extractFailed,
        emptyPassword,
        passwordMismatch,
        sourceMissing,
        notADirectory,
        sourceIsPackageOrHidden,
        mountPointNotFound,
        wrongPassword,
        notAQuillvane,
        detachBusy,
    };

    static VaultError alreadyLocked(const std::string& name);
    /// Both in bytes.
    static VaultError insufficientSpace(std::int64_t needed, std::int64_t available);
    static VaultError createFailed(const std::string& detail);
    static VaultError attachFailed(const std::string& detail);
    static VaultError copyFailed(const std::string& detail);
    static VaultError verificationFailed(const std::string& detail);
    static VaultError detachFailed(const std::string& detail);
    /// `leftBehind` is what must not be deleted, a sentence; empty when there is nothing.
    static VaultError deleteFailed(const std::string& original, const std::string& vault,
                                   const std::string& leftBehind = {});
    static VaultError renameFailed(const std::string& detail);
    static VaultError targetFolderExists(const std::string& name);
    static VaultError extractFailed(const std::string& detail);
    static VaultError emptyPassword();
    static VaultError passwordMismatch();
    static VaultError sourceMissing();
    static VaultError notADirectory();
    static VaultError sourceIsPackageOrHidden();
    static VaultError mountPointNotFound();
    static VaultError wrongPassword();
    static VaultError notAQuillvane();
    static VaultError detachBusy();

    Case kind() const noexcept { return kind_; }
    /// The text for the user; a tool's detail stands on its own lines after the sentence.
    const std::string& errorDescription() const noexcept { return description_; }
    const char* what() const noexcept override { return description_.c_str(); }

private:
    VaultError(Case kind, std::string description);

    Case kind_;
    std::string description_;
};
