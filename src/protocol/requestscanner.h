#pragma once

#include "requestgrammar.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

/// One request of a client. Owns its text, so it does not change when more text arrives while the
/// request is processed.
struct Request
{
    enum class Kind {
        Get, ///< "GET NAME". Complete as soon as the name has three characters.
        Set, ///< "SET NAME VALUE NAME VALUE ...". Complete with its line ending.
    };

    Kind kind = Kind::Get;
    /// From the keyword to the last character of the line ending, upper case ASCII. The text of an
    /// ordinary GET fits into the string object and needs no allocation.
    std::string text;
    /// Whether `text` ends with a carriage return or a line feed. Always true for a SET.
    bool hasLineEnding = false;

    /// The three characters of a GET's variable name. Empty for a SET. Refers to `text`.
    std::string_view variable() const;
};

/// Holds the text that one client has sent and cuts requests out of it. A request may start
/// anywhere. The scanner cuts the request that starts first and drops the text before it. A request
/// is exactly the text that one of these patterns matches:
///
///     GET "GET (?<variable>[\w_]{3})[ ]*(?<return>[\r\n])*"
///     SET "SET([ ]+([\w_]{3,9})([ ]+[-\d]{1,3})?)+[ ]*(?<return>[\r\n]+)"
///
/// The scanner does not run these patterns. Three digits can be a name or a value, and a matcher
/// that tries both needs exponential time. The scanner takes linear time and keeps only text that
/// can still become a request. It uses no socket and pumps no events. The caller may append bytes
/// before it has taken all requests.
class RequestScanner
{
public:
    /// The greatest length of a SET before its line ending, in bytes. The scanner drops longer
    /// SETs, so a client that never ends its line cannot fill the memory.
    static constexpr std::size_t maxRequestLength = std::size_t(1024) * 1024;

    /// Adds the bytes of one read up to the first zero byte, and drops the others. Decodes them as
    /// UTF-8 and converts them to upper case. Each read is decoded separately, so a character that
    /// two reads share is lost.
    void append(const char *data, std::size_t size);

    /// Moves the next request from the text to `request`. If the text contains no complete request,
    /// drops the text that cannot become one, leaves `request` unchanged and returns false.
    bool takeNext(Request &request);

    /// Bytes of text that wait for takeNext() or for more text.
    std::size_t bytesKept() const;

private:
    /// An offset in all text that this client has ever sent. It stays valid when text is dropped.
    using Position = std::uint64_t;
    static constexpr Position none = std::numeric_limits<Position>::max();

    /// Reads a line byte by byte and knows the start of the earliest SET that a line ending can
    /// still complete. Two positions are enough. All SETs that have a name accept the same further
    /// text, so only the earliest of these matters. At most one SET waits for its first name.
    class OpenSets
    {
    public:
        /// Starts again with an empty line.
        void reset();
        /// Drops the open SETs. The current token continues.
        void dropSets();
        /// Reads the byte `c` at position `at`. `c` must not be a line ending.
        void read(char c, Position at);
        /// Whether no SET is open and no keyword has begun. Bytes up to the next "S" may then be
        /// skipped.
        bool isIdle() const;
        /// The start of the earliest open SET, or `none`.
        Position earliest() const;

    private:
        void extendToken(char c);
        void endToken(Position at);
        bool mayBecomeName() const;
        bool mayBecomeValue() const;

        Position m_named = none;       ///< The earliest SET with at least one name.
        Position m_fresh = none;       ///< The SET that waits for its first name.
        bool m_valueMayFollow = false; ///< The last token of m_named is a name.
        std::size_t m_tokenLength = 0;
        bool m_onlyNameCharacters = true;
        bool m_onlyValueCharacters = true;
        std::size_t m_keywordLength = 0; ///< The text read ends with this many bytes of "SET".
    };

    void appendDecoded(std::string_view read);
    void findLineEnd();
    void findCompleteSets();
    Position findGet(Position limit);
    bool cutGetAtFront(Request &request);
    bool cutGet(Request &request);
    void cutGetAt(Position start, Request &request);
    bool cutSet(Request &request);
    void cut(Position start, Position end, Request &request);
    void dropUntil(Position end);
    void keepOpenLine();
    void readOpenSetsUntil(Position end);
    void releaseFront();
    void releaseMemory();

    Position textEnd() const;
    Position lineLimit() const;
    Position skipSpaces(Position from) const;
    Position skipLineEndings(Position from) const;
    std::string_view view(Position from, Position to) const;

    std::string m_text;               ///< Starts at m_base.
    Position m_base = 0;              ///< The position of the first byte of m_text.
    Position m_cut = 0;               ///< The text before this position is consumed.
    Position m_endSearched = 0;       ///< No line ending is between m_cut and this position.
    Position m_getSearched = 0;       ///< No GET starts between m_cut and this position.
    Position m_openSetsRead = 0;      ///< m_openSets has read the text up to this position.
    Position m_lineEnd = none;        ///< The first line ending, if it is known.
    std::vector<Position> m_complete; ///< SETs that m_lineEnd completes. The earliest is last.
    OpenSets m_openSets;
};
