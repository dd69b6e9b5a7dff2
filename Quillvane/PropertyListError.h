#pragma once

#include <exception>

/// A text that should have been a property list is none.
class PropertyListError : public std::exception {
public:
    const char* what() const noexcept override {
        return "The data isn't a readable property list.";
    }
};
