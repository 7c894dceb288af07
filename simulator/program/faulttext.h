#pragma once

#include "fault.h"

#include <QStringList>

namespace sim {

/// Reads a fault from the words KIND [HOWOFTEN [VALUE]] [on SCOPE]. HOWOFTEN is a number of
/// requests, a share such as "30%", or "always", which is the default. SCOPE is "reads", "writes"
/// or the first register of a request. Throws Failure for other words.
Fault parseFault(QStringList words);

/// Writes `fault` in the words that parseFault() reads.
QString faultText(const Fault &fault);

/// Returns one line for each kind, with its name, its effect and its VALUE.
QStringList faultHelp();

} // namespace sim
