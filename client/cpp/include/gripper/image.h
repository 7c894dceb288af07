#pragma once

#include "gripper/protocol.h"
#include "gripper/variables.h"

#include <chrono>
#include <string>
#include <vector>

namespace gripper {

/// The time of reading: when the reply had arrived. The values are older: by 10 to 60 ms with one
/// gripper on a throttled line, and by 50 ms more for each other gripper.
struct ReadingTime
{
    std::chrono::steady_clock::time_point monotonic;
    std::chrono::system_clock::time_point wall;

    static ReadingTime now();
};

/// The state of the link between the daemon and the grippers.
struct LineState
{
    std::string text;       ///< the value of DRI, such as "ERR_TIMEOUT"
    bool running = false;   ///< the last access to a gripper succeeded
    bool scanning = false;  ///< the daemon looks for grippers
    bool upgrading = false; ///< a flasher has the line: values do not change
};

/// All values of the line, from one packet.
struct LineImage : LineValues
{
    ReadingTime time;

    LineState state() const;
};

/// All values of one gripper, from one packet: they belong together. A value that the daemon does
/// not have is empty, never 0.
struct Image : Values
{
    int id = 0;
    ReadingTime time;
    LineState line; ///< from the same packet
    /// The grippers that the daemon lists, from the same packet.
    std::vector<int> listed;
    /// Whether the daemon lists the gripper. If not, all values of the gripper are empty.
    bool present = false;
    /// Whether the values may be old: the gripper is not listed, or the link does not run. Muted
    /// polling does not show: then values do not change although `stale` is false.
    bool stale = true;
};

/// The requests for an Image. PRE and GTO come first: if the network splits the packet, the object
/// detection is never older than the request that it belongs to.
const Batch &imageRequests();

/// The requests for a LineImage.
const Batch &lineRequests();

/// Decodes the replies to imageRequests(). Throws ProtocolError if a value has not its form.
Image decodeImage(int id, const std::vector<Reply> &replies, const ReadingTime &time);

/// Decodes the replies to lineRequests(). Throws ProtocolError if a value has not its form.
LineImage decodeLine(const std::vector<Reply> &replies, const ReadingTime &time);

} // namespace gripper
