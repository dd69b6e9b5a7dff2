#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

/// Writes each text and a line feed to standard output.
/// Returns when the system has taken all of it, or throws `std::system_error`. Nothing is buffered:
/// a text may be a secret.
void printResult(std::initializer_list<std::string_view> lines);

/// Writes the text and a line feed to standard error, for people: what is in it of other people's
/// names cannot command the terminal (`printableLines`). Whoever has closed it does not
/// want to know: what cannot be written at once is dropped.
void printMessage(const std::string& text);

/// The text as one word of a command line, for people to copy into a shell: nothing in it is a
/// command there.
std::string shellWord(std::string_view text);

/// Whether a line can be written to the stream without waiting for a reader.
bool canPrint(int stream);
