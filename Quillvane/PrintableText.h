#pragma once

#include <string>
#include <string_view>

// Names come from anybody. What is printed for people must not move the cursor, colour the
// terminal, or look like something else.

/// `name` fit for one line on a terminal: control and direction characters, bytes that are no
/// UTF-8, and the backslash are written as escapes ("\n", "\x1b", "\\").
std::string printable(std::string_view name);

/// A message of one or more lines that may quote names: as `printable`, but line feeds end its
/// lines, and a backslash stays, as it may begin an escape already.
std::string printableLines(std::string_view text);
