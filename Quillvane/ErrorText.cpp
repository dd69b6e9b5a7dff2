#include "ErrorText.h"

#include <system_error>

std::string errorText(const std::exception& error) {
    if (const auto* systemError = dynamic_cast<const std::system_error*>(&error))
        return systemError->code().message();
    return error.what();
}

std::string systemErrorText(int errorNumber) {
    return std::generic_category().message(errorNumber);
}
