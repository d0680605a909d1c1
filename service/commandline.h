#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace service {

// Splits the text of a command line into its words. Words are separated by spaces, and by spaces only. A word that
// begins with a double quote runs to the next double quote, spaces included, or to the end of the text where there
// is none; the quotes are not part of it. A double quote inside any other word is an ordinary character, and so is
// a backslash everywhere. Empty words are dropped, quoted ones too.
//
//     service-install      -> [service-install]
//     "a b" c              -> [a b] [c]
//     "a b"c  d"e f        -> [a b] [c] [d"e] [f]
std::vector<std::string> splitCommandLine(std::string_view text);

// What main functions are given: the program's path and the words of its command line, as an array of C strings
// ended by a null pointer. Owns the array and the words.
class ArgumentVector {
public:
    // program  the executable's full path, element 0.
    ArgumentVector(std::string program, std::vector<std::string> words);
    ArgumentVector(const ArgumentVector&) = delete;
    ArgumentVector& operator=(const ArgumentVector&) = delete;
    ~ArgumentVector() = default;

    // The number of words and 1.
    int count() const { return static_cast<int>(m_words.size()); }
    char** values() { return m_pointers.data(); }

private:
    std::vector<std::string> m_words; // element 0 included
    std::vector<char*> m_pointers;    // into m_words
};

} // namespace service
