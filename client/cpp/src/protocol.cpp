#include "gripper/protocol.h"

#include "gripper/errors.h"
#include "gripper/variables.h"

#include <algorithm>

namespace gripper {

namespace {

constexpr std::size_t nameLength = 3;
constexpr std::size_t acknowledgementLength = 3;
constexpr std::size_t maxShownLength = 40;
constexpr int maxValue = 255;

char upperCase(char c)
{
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

bool isNameCharacter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

/// Null for a name that the daemon acknowledges and ignores.
const SetVariable *findSetVariable(const std::string &name)
{
    const auto *row = std::find_if(setVariables.begin(), setVariables.end(),
                                   [&](const SetVariable &known) { return known.name == name; });
    return row == setVariables.end() ? nullptr : row;
}

std::string upperCase(std::string_view text)
{
    std::string upper(text);
    std::transform(upper.begin(), upper.end(), upper.begin(), [](char c) { return upperCase(c); });
    return upper;
}

/// The beginning of foreign bytes, with a dot for each byte that is not printable ASCII.
std::string shown(std::string_view bytes)
{
    std::string text(bytes.substr(0, maxShownLength));
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '.');
    return text;
}

[[noreturn]] void failByForeignBytes(std::string_view bytes)
{
    throw ProtocolError("the server does not answer like gripperd (\"" + shown(bytes) +
                        "\"): check the address");
}

} // namespace

Batch &Batch::get(std::string_view name)
{
    const std::string upper = upperCase(name);
    if (upper.size() != nameLength || !std::all_of(upper.begin(), upper.end(), isNameCharacter)) {
        throw InvalidValue("a name has three letters, digits or underscores, unlike \"" +
                           std::string(name) + "\"");
    }
    m_bytes += "GET " + upper + '\n';
    m_names.push_back({upper[0], upper[1], upper[2]});
    return *this;
}

Batch &Batch::set(const std::vector<Pair> &pairs)
{
    if (pairs.empty())
        throw InvalidValue("a SET needs a name and a value");
    std::string request = "SET";
    for (const auto &[name, value] : pairs) {
        const std::string upper = upperCase(name);
        const SetVariable *const row = findSetVariable(upper);
        if (row == nullptr)
            throw InvalidValue("there is no variable \"" + name + "\" to set");
        if (value < 0 || value > maxValue) {
            throw InvalidValue(upper + " is a number from 0 to 255, not " + std::to_string(value));
        }
        m_needsGripper = m_needsGripper || row->needsGripper;
        request += ' ' + upper + ' ' + std::to_string(value);
    }
    m_bytes += request + '\n';
    m_sets += (m_sets.empty() ? "" : ", ") + request;
    m_names.push_back(setName);
    return *this;
}

void ReplyReader::expect(const Batch &batch)
{
    m_batch = &batch;
    m_buffer.clear();
    m_position = 0;
    m_searched = 0;
    m_ends.clear();
    m_replies.clear();
}

void ReplyReader::append(std::string_view bytes)
{
    if (bytes.empty())
        return;
    if (m_batch == nullptr)
        failByForeignBytes(bytes);
    const std::size_t capacity = m_batch->size() * maxReplyLength;
    if (bytes.size() > capacity - std::min(capacity, m_buffer.size()))
        failByForeignBytes(bytes);
    m_buffer.append(bytes);
    while (!isComplete() && cutReply()) {
    }
    if (!isComplete())
        return;
    if (m_position < m_buffer.size())
        failByForeignBytes(std::string_view(m_buffer).substr(m_position));
    listReplies();
}

bool ReplyReader::isComplete() const noexcept
{
    return m_batch != nullptr && m_ends.size() == m_batch->size();
}

bool ReplyReader::cutReply()
{
    const Batch::Name &name = m_batch->m_names[m_ends.size()];
    return name == Batch::setName ? cutAcknowledgement() : cutLine(name);
}

bool ReplyReader::cutAcknowledgement()
{
    const auto reply = std::string_view(m_buffer).substr(m_position, acknowledgementLength);
    // A part of a reply shows already that the peer is another server.
    if (std::string_view("ack").substr(0, reply.size()) != reply &&
        std::string_view("nak").substr(0, reply.size()) != reply)
        failByForeignBytes(reply);
    if (reply.size() < acknowledgementLength)
        return false;
    endReplyAt(m_position + acknowledgementLength);
    return true;
}

bool ReplyReader::cutLine(const Batch::Name &name)
{
    const std::string_view rest = std::string_view(m_buffer).substr(m_position);
    const std::array<char, nameLength + 1> start{name[0], name[1], name[2], ' '};
    const std::string_view expected(start.data(), start.size());
    if (rest.substr(0, expected.size()) != expected.substr(0, rest.size()))
        failByForeignBytes(rest);
    const std::size_t end = m_buffer.find('\n', m_searched);
    if (end == std::string::npos ? rest.size() >= maxReplyLength
                                 : end - m_position >= maxReplyLength)
        failByForeignBytes(rest);
    m_searched = m_buffer.size();
    if (end == std::string::npos)
        return false;
    endReplyAt(end + 1);
    return true;
}

void ReplyReader::endReplyAt(std::size_t position)
{
    m_ends.push_back(position);
    m_position = position;
    m_searched = position;
}

/// The views remain valid, because the buffer does not change after the last reply.
void ReplyReader::listReplies()
{
    std::string_view rest(m_buffer);
    std::size_t begin = 0;
    for (std::size_t i = 0; i < m_ends.size(); ++i) {
        const std::string_view reply = rest.substr(begin, m_ends[i] - begin);
        begin = m_ends[i];
        if (m_batch->m_names[i] == Batch::setName)
            m_replies.push_back({{}, reply});
        else
            m_replies.push_back({reply.substr(0, nameLength),
                                 reply.substr(nameLength + 1, reply.size() - nameLength - 2)});
    }
}

} // namespace gripper
