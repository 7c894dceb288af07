#pragma once

#include "options.h"

namespace gateway {

class Demo;

/// Serves until a quit signal. Returns the exit status. Throws std::runtime_error if it cannot
/// start.
int serve(const Options &options, const Demo *demo);

} // namespace gateway
