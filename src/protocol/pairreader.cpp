#include "pairreader.h"

#include "requestgrammar.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>

namespace {

constexpr char removedCharacter = '\3';

// Returns 0 if `text` as a whole is not a number.
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
    unreadShortToken();
    while (m_unread < m_text.size()) {
        const std::size_t name = std::min(m_text.find_first_not_of(' ', m_unread), m_text.size());
        const std::size_t end = nameEnd(name);
        if (name > m_unread && end - name >= shortestName) {
            pair.name = std::string_view(m_text).substr(name, end - name);
            readValue(end, pair);
            return true;
        }
        skip(std::max(name, m_unread + 1));
    }
    return false;
}

void PairReader::skip(std::size_t end)
{
    std::memmove(m_text.data() + m_skippedEnd, m_text.data() + m_unread, end - m_unread);
    m_skippedEnd += end - m_unread;
    m_unread = end;
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

// If the pair has no value, the spaces after the name stay unread: they belong to the next pair.
void PairReader::readValue(std::size_t begin, Pair &pair)
{
    const std::size_t value = std::min(m_text.find_first_not_of(' ', begin), m_text.size());
    const std::size_t end = valueEnd(value);
    const bool hasValue = value > begin && end > value;
    pair.value = hasValue ? lowByteOf(std::string_view(m_text).substr(value, end - value)) : 0;
    m_unread = hasValue ? end : begin;
}

// One or two name characters before the removed pair are too short for a name. Together with the
// text after the pair they may form a name, so these characters and the space before them become
// unread again. They overwrite the name of the removed pair, which is valid only until next().
void PairReader::unreadShortToken()
{
    while (m_skippedEnd > 0 && m_text[m_skippedEnd - 1] == ' ')
        --m_skippedEnd;
    std::size_t begin = m_skippedEnd;
    while (begin > 0 && m_skippedEnd - begin < shortestName && isNameCharacter(m_text[begin - 1]))
        --begin;
    if (begin == 0 || begin == m_skippedEnd || m_text[begin - 1] != ' ')
        return;
    const std::size_t length = m_skippedEnd - (begin - 1);
    m_unread -= length;
    m_skippedEnd -= length;
    std::memmove(m_text.data() + m_unread, m_text.data() + m_skippedEnd, length);
}
