#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

/// Whether a variable name may contain `c`: an ASCII letter, a digit or an underscore.
constexpr bool isNameCharacter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
}

/// Whether the value of a SET may contain `c`: a digit or a minus sign, in any order.
constexpr bool isValueCharacter(char c)
{
    return (c >= '0' && c <= '9') || c == '-';
}

/// One request as it was cut out of a client's text. Owns its text, so it stays what it is
/// whatever arrives from the client while the request is carried out.
struct Request
{
    enum class Kind {
        Get, ///< "GET NAME", complete as soon as three name characters are there
        Set, ///< "SET NAME VALUE NAME VALUE ...", complete with its line ending
    };

    Kind kind = Kind::Get;
    /// From the keyword to the last line ending character that belongs to the request: upper
    /// case ASCII. That of an ordinary GET fits into the string object itself.
    std::string text;
    /// Whether a carriage return or line feed came with the request; always so for a SET.
    bool hasLineEnding = false;

    /// The three characters of a GET's variable name; empty for a SET. Refers to `text`.
    std::string_view variable() const;
};

/// Holds the text that one client has sent and that is not yet consumed, and cuts requests out
/// of it. A request may start anywhere; the one that starts first is cut, and with it goes
/// everything in front of it. What is cut is, byte for byte, what these two patterns match:
///
///     GET "GET (?<variable>[\w_]{3})[ ]*(?<return>[\r\n])*"
///     SET "SET([ ]+([\w_]{3,9})([ ]+[-\d]{1,3})?)+[ ]*(?<return>[\r\n]+)"
///
/// Never runs them: three digits are both a name and a value, and a matcher that tries both
/// needs exponential time. Here every byte costs the same, whatever the client sends, and only
/// text that may still become a request is kept. Knows no socket and pumps no events; bytes may
/// be appended while requests are still waiting to be taken.
class RequestScanner
{
public:
    /// Bytes of a SET in front of its line ending. A longer one is garbage, so that a client
    /// that never ends its line cannot make the daemon hold all of it. A line that has grown
    /// beyond this without an ending loses what is held of it.
    static constexpr std::size_t __longestRequest = std::size_t(1024) * 1024;

    /// Adds the bytes of one read: those in front of the first zero byte, decoded as UTF-8
    /// and turned to upper case. Every read is decoded by itself, so a character that two reads
    /// share is lost. Ends no request by itself: call takeNext() until it returns false.
    void append(const char *data, std::size_t size);

    /// Cuts the next request into `request`. False if the text contains no complete one;
    /// `request` is then untouched and the text that cannot become a request is gone.
    bool takeNext(Request &request);

    /// Bytes of text that are held, waiting for what may complete them or for takeNext().
    std::size_t bytesKept() const;

private:
    /// Offset in all the text that this client has ever sent, so that dropping text from the
    /// front moves nothing.
    using Position = std::uint64_t;
    static constexpr Position __nowhere = std::numeric_limits<Position>::max();

    /// Follows a line that has no ending yet, byte by byte, and knows where the earliest SET
    /// starts that an ending may still complete. Two positions are enough: SETs behind which a
    /// name has been read all accept the same continuations, so the earliest stands for them.
    class OpenSets
    {
    public:
        /// Starts over: the text in front of the next byte is gone.
        void reset();
        /// Gives up the SETs that are open; the token that is being read goes on.
        void forget();
        /// Reads the next byte, which stands at `at` and is no line ending.
        void follow(char c, Position at);
        /// Whether no SET is open or just being begun: bytes up to the next "S" may be skipped.
        bool isIdle() const;
        /// Start of the earliest open SET; __nowhere if there is none.
        Position earliest() const;

    private:
        void extendToken(char c);
        void endToken(Position at);
        bool mayBecomeName() const;
        bool mayBecomeValue() const;

        Position m_named = __nowhere;  ///< earliest SET with at least one name
        Position m_fresh = __nowhere;  ///< SET that waits for its first name
        bool m_valueMayFollow = false; ///< m_named's last token is a name
        std::size_t m_tokenLength = 0;
        bool m_onlyNameCharacters = true;
        bool m_onlyValueCharacters = true;
        std::size_t m_keywordLength = 0; ///< how much of "SET" the last bytes are
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
    void followUntil(Position end);
    void releaseFront();
    void releaseMemory();

    Position textEnd() const;
    Position lineLimit() const;
    Position skipSpaces(Position from) const;
    Position skipLineEndings(Position from) const;
    std::string_view view(Position from, Position to) const;

    std::string m_text;               ///< starts with the byte at m_base
    Position m_base = 0;              ///< where m_text starts
    Position m_cut = 0;               ///< everything in front of this is consumed
    Position m_endSearched = 0;       ///< no line ending between m_cut and this
    Position m_getSearched = 0;       ///< no GET starts between m_cut and this
    Position m_followed = 0;          ///< m_openSets has read everything up to this
    Position m_lineEnd = __nowhere;   ///< first line ending, once found
    std::vector<Position> m_complete; ///< SETs that m_lineEnd completes, the earliest last
    OpenSets m_openSets;
};
