#include "service/argumentvector.h"

#include <utility>

namespace service {

ArgumentVector::ArgumentVector(std::string program, std::vector<std::string> words) : m_words(std::move(words)) {
    m_words.insert(m_words.begin(), std::move(program));
    for (std::string& word : m_words) m_pointers.push_back(word.data());
    m_pointers.push_back(nullptr);
}

} // namespace service
