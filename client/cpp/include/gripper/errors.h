#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace gripper {

/// The base of all exceptions of this library. what() is a sentence for the user.
class Error : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// The base of the errors after which the connection is closed. The next call opens a new one.
class CommunicationError : public Error
{
public:
    explicit CommunicationError(const std::string &text, std::string unknown = {})
        : Error(text)
        , m_unknown(std::move(unknown))
    {
    }

    /// The SET that the daemon may or may not have carried out, such as "SET POS 10 GTO 1". Empty
    /// if nothing is unknown. The library never sends this SET again.
    const std::string &unknown() const noexcept { return m_unknown; }

private:
    std::string m_unknown;
};

/// There is no connection to the daemon, or it has ended.
class ConnectionLost : public CommunicationError
{
public:
    using CommunicationError::CommunicationError;
};

/// The time of a call is over. The gripper may still carry out what the daemon has acknowledged.
class TimedOut : public CommunicationError
{
public:
    using CommunicationError::CommunicationError;
};

/// The peer does not answer like the daemon.
class ProtocolError : public CommunicationError
{
public:
    using CommunicationError::CommunicationError;
};

/// The daemon replied `nak`, or the library did not send the request because it would do harm.
class Refused : public Error
{
public:
    using Error::Error;
};

/// The daemon does not list the gripper. A command has sent nothing then, except stop() and a
/// command during which the gripper was missing for 3 s.
class GripperMissing : public Error
{
public:
    GripperMissing(const std::string &text, int id)
        : Error(text)
        , m_id(id)
    {
    }

    int id() const noexcept { return m_id; }

private:
    int m_id;
};

/// The gripper is not active, so it does not move.
class NotActive : public Error
{
public:
    NotActive(const std::string &text, int status)
        : Error(text)
        , m_status(status)
    {
    }

    /// The value of STA.
    int status() const noexcept { return m_status; }

private:
    int m_status;
};

/// The gripper has a fault. Gripper::activate(Again::Yes) clears the faults that can be cleared.
class Fault : public Error
{
public:
    Fault(const std::string &text, int code)
        : Error(text)
        , m_code(code)
    {
    }

    /// The value of FLT.
    int code() const noexcept { return m_code; }

private:
    int m_code;
};

/// Another client commanded the gripper during the call.
class Interference : public Error
{
public:
    using Error::Error;
};

/// An argument is out of its range, or no variable has this name. Nothing was sent.
class InvalidValue : public Error
{
public:
    using Error::Error;
};

} // namespace gripper
