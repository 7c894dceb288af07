#include "requestscanner.h"

#include <QString>

#include <algorithm>
#include <cstring>

namespace {

constexpr std::string_view setKeyword = "SET";
constexpr std::string_view getKeyword = "GET "; // exactly one space
constexpr std::size_t getVariableLength = 3;
constexpr std::size_t shortestGet = getKeyword.size() + getVariableLength;

// Replaces each character that is not ASCII. No request contains such a character, and no other
// character of the text becomes a zero byte.
constexpr char foreignCharacter = '\0';

// QString::toUpper() moves the rest of the text for every letter that becomes longer ("ß"), so
// the scanner converts short pieces.
constexpr int upperCaseChunk = 128;

// An idle client keeps at most this memory. Ordinary requests fit without another allocation.
constexpr std::size_t idleTextCapacity = 1024;
constexpr std::size_t idleListCapacity = 64;

char toUpperAscii(char c)
{
    return static_cast<char>(c - ((c >= 'a' && c <= 'z') ? 'a' - 'A' : 0));
}

bool isAscii(std::string_view text)
{
    unsigned bits = 0;
    for (const char c : text)
        bits |= static_cast<unsigned char>(c);
    return bits < 0x80;
}

std::string_view untilZero(const char *data, std::size_t size)
{
    const void *zero = size > 0 ? std::memchr(data, 0, size) : nullptr;
    if (zero == nullptr)
        return {data, size};
    return {data, static_cast<std::size_t>(static_cast<const char *>(zero) - data)};
}

bool isName(std::string_view token)
{
    return token.size() >= shortestName && token.size() <= longestName &&
           std::all_of(token.begin(), token.end(), isNameCharacter);
}

bool isValue(std::string_view token)
{
    return !token.empty() && token.size() <= longestValue &&
           std::all_of(token.begin(), token.end(), isValueCharacter);
}

bool endsWithSet(std::string_view token)
{
    return token.size() >= setKeyword.size() &&
           token.substr(token.size() - setKeyword.size()) == setKeyword;
}

bool beginsWithGet(std::string_view text)
{
    if (text.size() < shortestGet || text.substr(0, getKeyword.size()) != getKeyword)
        return false;
    const std::string_view variable = text.substr(getKeyword.size(), getVariableLength);
    return std::all_of(variable.begin(), variable.end(), isNameCharacter);
}

bool isBeginningOfGet(std::string_view text)
{
    const std::string_view keyword = text.substr(0, getKeyword.size());
    const std::string_view variable = text.substr(keyword.size());
    return getKeyword.substr(0, keyword.size()) == keyword &&
           std::all_of(variable.begin(), variable.end(), isNameCharacter);
}

bool isBeginningOfSet(std::string_view text)
{
    return setKeyword.substr(0, text.size()) == text;
}

// Returns the length of the longest suffix of `text` that may be the start of a GET, or of the
// keyword of a SET.
std::size_t lengthOfStartedRequest(std::string_view text)
{
    for (std::size_t length = std::min(text.size(), shortestGet - 1); length > 0; --length) {
        const std::string_view end = text.substr(text.size() - length);
        if (isBeginningOfGet(end) || isBeginningOfSet(end))
            return length;
    }
    return 0;
}

// Reads the tokens of a line from its end to its start. Knows whether the tokens read so far can be
// the rest of a SET.
class LineTail
{
public:
    bool completesAnything() const { return m_afterName; }
    bool completesFreshSet() const { return m_afterKeyword; }

    void prepend(std::string_view token)
    {
        const bool asName = isName(token) && m_afterName;
        const bool asValue = isValue(token) && m_afterValue;
        m_afterKeyword = asName;
        m_afterValue = asName;
        m_afterName = asName || asValue;
    }

private:
    // Whether the tokens read so far may follow a keyword, a value or a name. At first there are no
    // tokens: they cannot follow a keyword, because a SET needs a name.
    bool m_afterKeyword = false;
    bool m_afterValue = true;
    bool m_afterName = true;
};

// Removes the last token and the spaces after it from `line`. Returns the token.
std::string_view takeLastToken(std::string_view &line)
{
    line = line.substr(0, line.find_last_not_of(' ') + 1);
    const std::size_t start = line.find_last_of(' ') + 1;
    const std::string_view token = line.substr(start);
    line = line.substr(0, start);
    return token;
}

} // namespace

std::string_view Request::variable() const
{
    if (kind != Kind::Get || text.size() < shortestGet)
        return {};
    return std::string_view(text).substr(getKeyword.size(), getVariableLength);
}

void RequestScanner::append(const char *data, std::size_t size)
{
    // Each move is shorter than the text that it drops, so all moves together take linear time.
    if (m_cut - m_base > m_text.size() / 2)
        releaseFront();
    const std::string_view read = untilZero(data, size);
    if (!isAscii(read)) {
        appendDecoded(read);
        return;
    }
    m_text.append(read);
    char *added = m_text.data() + m_text.size() - read.size();
    std::transform(added, added + read.size(), added, toUpperAscii);
}

// A read that is not ASCII needs the complete conversion: the upper case of some letters is ASCII
// ("ß" becomes "SS"), and decoding removes a byte order mark.
void RequestScanner::appendDecoded(std::string_view read)
{
    const QString text = QString::fromUtf8(read.data(), static_cast<int>(read.size()));
    for (int at = 0; at < text.size(); at += upperCaseChunk) {
        const QString upper = text.mid(at, upperCaseChunk).toUpper();
        for (const QChar c : upper)
            m_text.push_back(c.unicode() < 0x80 ? static_cast<char>(c.unicode())
                                                : foreignCharacter);
    }
}

bool RequestScanner::takeNext(Request &request)
{
    for (;;) {
        if (cutGetAtFront(request))
            return true;
        if (m_lineEnd == none)
            findLineEnd();
        if (cutGet(request) || cutSet(request))
            return true;
        if (m_lineEnd == none)
            break;
        dropUntil(skipLineEndings(m_lineEnd));
    }
    keepOpenLine();
    return false;
}

std::size_t RequestScanner::bytesKept() const
{
    return static_cast<std::size_t>(textEnd() - m_cut);
}

void RequestScanner::findLineEnd()
{
    const Position from = std::max(m_endSearched, m_cut);
    const std::string_view text = view(from, textEnd());
    const auto *found = std::find_if(text.begin(), text.end(), isLineEnding);
    m_endSearched = from + static_cast<Position>(found - text.begin());
    if (found == text.end())
        return;
    m_lineEnd = m_endSearched;
    findCompleteSets();
}

// One pass from the end of the line finds all SETs that the line ending completes. It stops at the
// first token that fits nowhere: no SET before this token can be complete.
void RequestScanner::findCompleteSets()
{
    const Position from = m_cut;
    std::string_view line = view(from, m_lineEnd);
    LineTail tail;
    while (!line.empty() && tail.completesAnything()) {
        const std::string_view token = takeLastToken(line);
        const Position set = from + line.size() + token.size() - setKeyword.size();
        if (endsWithSet(token) && tail.completesFreshSet() && m_lineEnd - set <= maxRequestLength)
            m_complete.push_back(set);
        tail.prepend(token);
    }
}

// Returns the first GET that ends before `limit`, or `none`.
RequestScanner::Position RequestScanner::findGet(Position limit)
{
    const Position from = std::max(m_getSearched, m_cut);
    const std::string_view text = view(from, std::max(from, limit));
    for (std::size_t at = text.find(getKeyword); at != std::string_view::npos;
         at = text.find(getKeyword, at + 1)) {
        if (beginsWithGet(text.substr(at)))
            return from + at;
    }
    m_getSearched = from + text.size() - std::min(text.size(), shortestGet - 1);
    return none;
}

// A fast path: no request can start earlier, so the rest of the line does not matter.
bool RequestScanner::cutGetAtFront(Request &request)
{
    if (!beginsWithGet(view(m_cut, textEnd())))
        return false;
    cutGetAt(m_cut, request);
    return true;
}

// A GET is cut only if it starts before the first complete SET of the line.
bool RequestScanner::cutGet(Request &request)
{
    Position limit = lineLimit();
    if (!m_complete.empty())
        limit = std::min(limit, m_complete.back() + shortestGet - 1);
    const Position start = findGet(limit);
    if (start == none)
        return false;
    cutGetAt(start, request);
    return true;
}

void RequestScanner::cutGetAt(Position start, Request &request)
{
    const Position lineEnding = skipSpaces(start + shortestGet);
    const Position end = skipLineEndings(lineEnding);
    request.kind = Request::Kind::Get;
    request.hasLineEnding = end > lineEnding;
    cut(start, end, request);
}

bool RequestScanner::cutSet(Request &request)
{
    if (m_complete.empty())
        return false;
    request.kind = Request::Kind::Set;
    request.hasLineEnding = true;
    cut(m_complete.back(), skipLineEndings(m_lineEnd), request);
    return true;
}

void RequestScanner::cut(Position start, Position end, Request &request)
{
    request.text.assign(view(start, end));
    dropUntil(end);
}

void RequestScanner::dropUntil(Position end)
{
    m_cut = end;
    m_openSets.reset();
    m_openSetsRead = end;
    if (m_lineEnd < end) {
        m_lineEnd = none;
        m_complete.clear();
    }
    // A GET may contain a keyword: "GET SET POS 1" reads the variable SET.
    while (!m_complete.empty() && m_complete.back() < end)
        m_complete.pop_back();
}

void RequestScanner::keepOpenLine()
{
    const Position end = textEnd();
    readOpenSetsUntil(end);
    if (m_openSets.earliest() != none && end - m_openSets.earliest() > maxRequestLength)
        m_openSets.dropSets();
    m_cut = std::min(m_openSets.earliest(), end - lengthOfStartedRequest(view(m_cut, end)));
    releaseFront();
    releaseMemory();
}

// While no SET is open, only the start of the next SET matters.
void RequestScanner::readOpenSetsUntil(Position end)
{
    while (m_openSetsRead < end) {
        if (m_openSets.isIdle())
            m_openSetsRead += std::min(view(m_openSetsRead, end).find(setKeyword.front()),
                                       static_cast<std::size_t>(end - m_openSetsRead));
        for (const char c : view(m_openSetsRead, end)) {
            m_openSets.read(c, m_openSetsRead++);
            if (m_openSets.isIdle())
                break;
        }
    }
}

void RequestScanner::releaseFront()
{
    m_text.erase(0, static_cast<std::size_t>(m_cut - m_base));
    m_base = m_cut;
}

void RequestScanner::releaseMemory()
{
    if (m_text.capacity() > idleTextCapacity && m_text.size() < m_text.capacity() / 4)
        m_text.shrink_to_fit();
    if (m_complete.capacity() > idleListCapacity)
        m_complete.shrink_to_fit();
}

RequestScanner::Position RequestScanner::textEnd() const
{
    return m_base + m_text.size();
}

RequestScanner::Position RequestScanner::lineLimit() const
{
    return std::min(m_lineEnd, textEnd());
}

RequestScanner::Position RequestScanner::skipSpaces(Position from) const
{
    const std::string_view text = view(from, textEnd());
    return from + std::min(text.find_first_not_of(' '), text.size());
}

RequestScanner::Position RequestScanner::skipLineEndings(Position from) const
{
    const std::string_view text = view(from, textEnd());
    return from + std::min(text.find_first_not_of("\r\n"), text.size());
}

std::string_view RequestScanner::view(Position from, Position to) const
{
    return std::string_view(m_text).substr(static_cast<std::size_t>(from - m_base),
                                           static_cast<std::size_t>(to - from));
}

void RequestScanner::OpenSets::reset()
{
    *this = OpenSets();
}

void RequestScanner::OpenSets::dropSets()
{
    m_named = none;
    m_fresh = none;
}

void RequestScanner::OpenSets::read(char c, Position at)
{
    if (c == ' ')
        endToken(at);
    else
        extendToken(c);
    const bool continues = m_keywordLength < setKeyword.size() && c == setKeyword[m_keywordLength];
    if (continues)
        ++m_keywordLength;
    else
        m_keywordLength = c == setKeyword.front() ? 1 : 0;
}

bool RequestScanner::OpenSets::isIdle() const
{
    return earliest() == none && m_keywordLength == 0;
}

RequestScanner::Position RequestScanner::OpenSets::earliest() const
{
    return std::min(m_named, m_fresh);
}

void RequestScanner::OpenSets::extendToken(char c)
{
    ++m_tokenLength;
    m_onlyNameCharacters = m_onlyNameCharacters && isNameCharacter(c);
    m_onlyValueCharacters = m_onlyValueCharacters && isValueCharacter(c);
    if (mayBecomeName())
        return;
    m_fresh = none;
    if (!m_valueMayFollow || !mayBecomeValue())
        m_named = none;
}

void RequestScanner::OpenSets::endToken(Position at)
{
    if (m_tokenLength == 0)
        return;
    if (mayBecomeName() && m_tokenLength >= shortestName) {
        m_named = std::min(m_named, m_fresh);
        m_valueMayFollow = true;
    } else if (m_valueMayFollow && mayBecomeValue()) {
        m_valueMayFollow = false;
    } else {
        m_named = none;
    }
    m_fresh = m_keywordLength == setKeyword.size() ? at - setKeyword.size() : none;
    m_tokenLength = 0;
    m_onlyNameCharacters = true;
    m_onlyValueCharacters = true;
}

bool RequestScanner::OpenSets::mayBecomeName() const
{
    return m_onlyNameCharacters && m_tokenLength <= longestName;
}

bool RequestScanner::OpenSets::mayBecomeValue() const
{
    return m_onlyValueCharacters && m_tokenLength <= longestValue;
}
