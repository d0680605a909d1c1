#pragma once

#include <string>
#include <vector>

namespace service {

// The arguments of a main function: the program's path and the words of its command line, as an array of C strings
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
