#pragma once

#include "linelistener.h"

namespace sim {

/// A gripper that is starting up: hears nothing, answers nothing.
class SilentMode : public LineListener
{
public:
    void receive(const QByteArray & /*bytes*/, int /*baudRate*/) override {}
    void onSilence() override {}
};

} // namespace sim
