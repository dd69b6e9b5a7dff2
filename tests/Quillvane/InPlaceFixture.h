#pragma once

#include "Quillvane/KeyStore.h"
#include "Quillvane/VaultEngine.h"
#include "Quillvane/VaultError.h"
#include "Quillvane/VaultKeys.h"
#include "tests/support/RecordingTools.h"

#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <string>

#define SKIP_UNLESS(mounted)                                                                       \
    if (!(mounted)) GTEST_SKIP() << "mounting is not permitted here"

/// An item with its key file in a folder of its own; the tools are stand-ins.
class InPlaceFixture : public testing::Test {
protected:
    InPlaceFixture() {
        writeFile(item, "image");
        KeyStore::write(VaultKeys::seal(vaultKey, Secret(std::string_view("right"))), item);
    }

    VaultEngine::SmartMount activate() {
        return VaultEngine::activateInPlace(item, Secret(std::string_view("päss phrase")));
    }
    VaultEngine::SmartMount openAsFolder(std::string_view password = "right") {
        return VaultEngine::openAsFolder(item, Credential::password(Secret(password)));
    }
    void deactivate() { VaultEngine::deactivateInPlace(folder); }
    void recover() { VaultEngine::recoverIfOrphaned(item, folder.string()); }

    /// What the operation fails with; a test failure when it does not.
    template <typename Operation> static std::optional<VaultError> failure(Operation operation) {
        try {
            operation();
            ADD_FAILURE() << "succeeded";
        } catch (const VaultError& error) {
            return error;
        }
        return std::nullopt;
    }
    template <typename Operation>
    static std::optional<VaultError::Case> failureKind(Operation operation) {
        const auto error = failure(operation);
        return error ? std::optional(error->kind()) : std::nullopt;
    }

    /// Everything in the item's directory.
    std::set<std::string> entries() const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(place.path()))
            names.insert(entry.path().filename());
        return names;
    }

    const std::set<std::string> closed{"Docs.quillvane", ".Docs.quillvane.qvkeys"};
    RecordingTools tools;
    TemporaryFolder place;
    std::filesystem::path item = place / "Docs.quillvane";
    std::filesystem::path folder = place / "Docs";
    Secret vaultKey = Secret(std::string_view("twenty bytes of key!"));
};
