#pragma once

namespace tools {

/// The version of the tree, with its commit between releases. The build writes the source of this
/// constant.
extern const char *const version;

} // namespace tools
