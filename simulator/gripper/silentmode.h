#pragma once

#include "linelistener.h"

namespace sim {

/// A gripper that boots or has no power. It ignores everything.
class SilentMode : public LineListener
{
public:
    void receive(const QByteArray & /*bytes*/, int /*baudRate*/) override {}
    void onSilence() override {}
};

} // namespace sim
