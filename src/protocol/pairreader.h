#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// Reads the name/value pairs of one SET request, left to right. A pair is what this pattern
/// finds first:
///
///     "[ ]+(?<variable>[\w_]{3,9})([ ]+(?<value>[-\d]{1,3}))?"
///
/// A pair that has been read is taken out of the text, and what stood in front of it then
/// touches what stood behind it: "SET POS 1000" is POS with the value 100 and leaves "SET0",
/// which holds no pair. Characters with code 3 count as not there. Takes time linear in the
/// length of the request, and memory only once, for its own copy of the text; pumps no events.
class PairReader
{
public:
    struct Pair
    {
        /// Three to nine name characters. Valid until the next call of next().
        std::string_view name;
        /// The low 8 bits of the value: 255 for "-1", 44 for "300". 0 for a pair without a
        /// value and for one that is no number ("-", "1-").
        std::uint8_t value = 0;
    };

    /// `requestText` is the request from "SET" through its line ending; it is copied.
    explicit PairReader(std::string_view requestText);

    /// Reads the next pair. False if there is none left; `pair` is then untouched.
    bool next(Pair &pair);

private:
    void skip(std::size_t end);
    std::size_t nameEnd(std::size_t begin) const;
    std::size_t valueEnd(std::size_t begin) const;
    void readValue(std::size_t begin, Pair &pair);
    void joinAround();

    // One buffer with a gap: what has been passed over, what has been taken out, what is still
    // to be read.
    std::string m_text;
    std::size_t m_passed = 0; ///< end of the text that has been passed over
    std::size_t m_ahead = 0;  ///< start of the text that is still to be read
};
