#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace NS_UTL {

// Splits a command line into the program and its arguments, as Windows does it for a program's `main`:
// - Words are separated by blanks and tabs; those in front of the program are skipped.
// - The program's name ends at the first blank, or, when a double quote begins it, at the next double quote. A
//   backslash has no meaning in it.
// - In an argument, double quotes enclose text with blanks and vanish. Between them, two in a row stand for one quote.
// - Backslashes stand for themselves, except in front of a double quote: there two stand for one, and one left over
//   makes the quote an ordinary character.
// Empty without any word. A quote that is never closed ends with the text.
std::vector<std::string> splitCommandLine(std::string_view commandLine);

} // namespace NS_UTL
