#pragma once

#include <exception>
#include <string>

/// The text of any error for the user: our own errors' sentence, or the system's description
/// without the name of the call that failed.
std::string errorText(const std::exception& error);
/// The system's description of `errorNumber`.
std::string systemErrorText(int errorNumber);
