#pragma once

#include "linelistener.h"

namespace sim {

/// A gripper that is starting up: hears nothing, answers nothing.
class SilentMode : public LineListener
{
public:
    void hear(const QByteArray & /*bytes*/, int /*baudRate*/) override {}
    void hearSilence() override {}
};

} // namespace sim
