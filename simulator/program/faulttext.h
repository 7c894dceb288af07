#pragma once

#include "fault.h"

#include <QStringList>

namespace sim {

/// The faults as words: KIND [HOWOFTEN [VALUE]] [on SCOPE]. HOWOFTEN is a number of requests, a
/// share such as "30%", or "always", which is also what is meant without it. SCOPE is "reads",
/// "writes" or the first register of a request.
///
/// Throws Failure for other words.
Fault parseFault(QStringList words);

/// `fault` in those words.
QString faultText(const Fault &fault);

/// One line for every kind: its name, what it does, what its value means.
QStringList faultHelp();

} // namespace sim
