#include "baudrates.h"

namespace sim {

namespace {
struct Rate
{
    speed_t speed;
    int bitsPerSecond;
};

constexpr Rate rates[] = {
    {B1200, 1200},     {B2400, 2400},     {B4800, 4800},     {B9600, 9600},
    {B19200, 19200},   {B38400, 38400},   {B57600, 57600},   {B115200, 115200},
    {B230400, 230400}, {B460800, 460800}, {B921600, 921600},
};
} // namespace

int baudRateOf(speed_t speed)
{
    for (const Rate &rate : rates) {
        if (rate.speed == speed)
            return rate.bitsPerSecond;
    }
    return 0;
}

} // namespace sim
