#pragma once

#include <string_view>

namespace gateway {

/// A file of the page. The build makes the table of them from gateway/page.
struct PageFile
{
    std::string_view path; ///< such as "/app.js"; "/" for the page itself
    std::string_view contentType;
    std::string_view tag; ///< changes with the content, in quotes
    std::string_view content;
};

/// Null for an unknown path.
const PageFile *findPageFile(std::string_view path);

} // namespace gateway
