#pragma once

#include <cstddef>

/// The rows of a constant table, for a range-based for.
template <class Row>
class TableRows
{
public:
    template <std::size_t rowCount>
    constexpr explicit TableRows(const Row (&rows)[rowCount])
        : m_first(rows)
        , m_last(rows + rowCount)
    {
    }

    constexpr const Row *begin() const { return m_first; }
    constexpr const Row *end() const { return m_last; }

private:
    const Row *m_first;
    const Row *m_last;
};
