#include "pairreader.h"

#include "requestscanner.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>

namespace {

constexpr char removedCharacter = '\3';
constexpr std::size_t shortestName = 3;
constexpr std::size_t longestName = 9;
constexpr std::size_t longestValue = 3;

// All of `text` has to be one number; 0 if it is not.
std::uint8_t lowByteOf(std::string_view text)
{
    int value = 0;
    const char *end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data(), end, value);
    return result.ptr == end ? static_cast<std::uint8_t>(value) : std::uint8_t(0);
}

} // namespace

PairReader::PairReader(std::string_view requestText)
{
    m_text.reserve(requestText.size());
    std::remove_copy(requestText.begin(), requestText.end(), std::back_inserter(m_text),
                     removedCharacter);
}

bool PairReader::next(Pair &pair)
{
    joinAround();
    while (m_ahead < m_text.size()) {
        const std::size_t name = std::min(m_text.find_first_not_of(' ', m_ahead), m_text.size());
        const std::size_t end = nameEnd(name);
        if (name > m_ahead && end - name >= shortestName) {
            pair.name = std::string_view(m_text).substr(name, end - name);
            readValue(end, pair);
            return true;
        }
        skip(std::max(name, m_ahead + 1));
    }
    return false;
}

void PairReader::skip(std::size_t end)
{
    std::memmove(m_text.data() + m_passed, m_text.data() + m_ahead, end - m_ahead);
    m_passed += end - m_ahead;
    m_ahead = end;
}

std::size_t PairReader::nameEnd(std::size_t begin) const
{
    const std::size_t limit = std::min(m_text.size(), begin + longestName);
    while (begin < limit && isNameCharacter(m_text[begin]))
        ++begin;
    return begin;
}

std::size_t PairReader::valueEnd(std::size_t begin) const
{
    const std::size_t limit = std::min(m_text.size(), begin + longestValue);
    while (begin < limit && isValueCharacter(m_text[begin]))
        ++begin;
    return begin;
}

// Without a value the spaces behind the name stay: they belong to what comes next.
void PairReader::readValue(std::size_t begin, Pair &pair)
{
    const std::size_t value = std::min(m_text.find_first_not_of(' ', begin), m_text.size());
    const std::size_t end = valueEnd(value);
    const bool hasValue = value > begin && end > value;
    pair.value = hasValue ? lowByteOf(std::string_view(m_text).substr(value, end - value)) : 0;
    m_ahead = hasValue ? end : begin;
}

// A space and one or two name characters in front of the last pair were too short for a name;
// with what stood behind that pair they may be one, so they are put back to be read again. This
// writes into the gap, where the name of the last pair still stands: only next() may do it.
void PairReader::joinAround()
{
    while (m_passed > 0 && m_text[m_passed - 1] == ' ')
        --m_passed;
    std::size_t begin = m_passed;
    while (begin > 0 && m_passed - begin < shortestName && isNameCharacter(m_text[begin - 1]))
        --begin;
    if (begin == 0 || begin == m_passed || m_text[begin - 1] != ' ')
        return;
    const std::size_t length = m_passed - (begin - 1);
    m_ahead -= length;
    m_passed -= length;
    std::memmove(m_text.data() + m_ahead, m_text.data() + m_passed, length);
}
