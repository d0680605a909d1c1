#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace NS_UTL {

// Splits the text of a command line into its words. Words are separated by spaces, and by spaces only. A word that
// begins with a double quote runs to the next double quote, spaces included, or to the end of the text where there
// is none; the quotes are not part of it. A double quote inside any other word is an ordinary character, and so is
// a backslash everywhere. Empty words are dropped, quoted ones too.
//
//     service-install      -> [service-install]
//     "a b" c              -> [a b] [c]
//     "a b"c  d"e f        -> [a b] [c] [d"e] [f]
std::vector<std::string> splitCommandLine(std::string_view text);

// What follows the program's name in a process's whole command line, as Windows hands it to a program of the graphical
// subsystem. The name ends at the first space or control character outside double quotes, wherever the quotes stand.
// Spaces and control characters after the name are skipped. Bytes from 0x80 up are ordinary characters.
std::string_view withoutProgram(std::string_view commandLine);

} // namespace NS_UTL
