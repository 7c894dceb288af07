#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// Reads the name/value pairs of one SET request from left to right. The next pair is the first
/// match of this pattern:
///
///     "[ ]+(?<variable>[\w_]{3,9})([ ]+(?<value>[-\d]{1,3}))?"
///
/// The reader removes each pair, which joins the text before and after it. From "SET POS 1000" it
/// reads POS with the value 100. The rest is "SET0", which contains no pair. The reader ignores
/// characters with code 3. It takes linear time and allocates once, for its copy of the text. It
/// pumps no events.
class PairReader
{
public:
    struct Pair
    {
        /// Three to nine name characters. Valid until the next call of next().
        std::string_view name;
        /// The low 8 bits of the value: 255 for "-1", 44 for "300". 0 if the pair has no value or
        /// if the value is not a number ("-", "1-").
        std::uint8_t value = 0;
    };

    /// Copies `requestText`, which is the request from "SET" to the end of its line ending.
    explicit PairReader(std::string_view requestText);

    /// Reads the next pair. Returns false and leaves `pair` unchanged if no pair is left.
    bool next(Pair &pair);

private:
    void skip(std::size_t end);
    std::size_t nameEnd(std::size_t begin) const;
    std::size_t valueEnd(std::size_t begin) const;
    void readValue(std::size_t begin, Pair &pair);
    void unreadShortToken();

    // The skipped text, then a gap with the removed pairs, then the unread text.
    std::string m_text;
    std::size_t m_skippedEnd = 0; ///< The end of the skipped text.
    std::size_t m_unread = 0;     ///< The start of the unread text.
};
