#pragma once

#include "Secret.h"

#include <utility>

/// What the user supplied to unlock an item. The recovery-key text is kept as typed.
class Credential {
public:
    enum class Kind { password, recoveryKey };

    static Credential password(Secret text) { return {Kind::password, std::move(text)}; }
    static Credential recoveryKey(Secret text) { return {Kind::recoveryKey, std::move(text)}; }

    Kind kind() const noexcept { return kind_; }
    const Secret& text() const noexcept { return text_; }

private:
    Credential(Kind kind, Secret text) : kind_(kind), text_(std::move(text)) {}

    Kind kind_;
    Secret text_;
};
