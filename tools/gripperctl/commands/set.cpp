#include "commands.h"

#include "commandoptions.h"
#include "commandwords.h"
#include "interruption.h"
#include "text.h"

namespace gripperctl {

namespace {

constexpr gripper::Seconds slowTimeout{60};
// The daemon reads only the first three digits.
constexpr std::size_t maxDigits = 3;
// Every value has the same effect.
constexpr int anyValue = 1;

[[noreturn]] void refuse(const std::string &problem)
{
    throw Failure(ExitCode::WrongUsage,
                  problem + (problem.back() == '?' ? " See" : "; see") + " gripperctl set --help");
}

/// gripperctl has safer commands or options for some variables. Null for the others.
const char *refusalOf(std::string_view name)
{
    constexpr std::pair<std::string_view, const char *> refused[] = {
        {"NID", "use gripperctl rename instead of NID; it also checks that the id is free"},
        {"UPG", "use gripperctl upgrade instead of UPG; it also waits for the flasher"},
        // SID does not apply to other pairs in the same request.
        {"SID", "use --gripper ID instead of SID, which ends with this connection"}};
    for (const auto &[known, problem] : refused) {
        if (name == known)
            return problem;
    }
    return nullptr;
}

std::vector<std::string> namesToSet()
{
    std::vector<std::string> names;
    for (const gripper::SetVariable &row : gripper::setVariables) {
        if (refusalOf(row.name) == nullptr)
            names.emplace_back(row.name);
    }
    return names;
}

bool isNumberLike(const std::string &word)
{
    return !word.empty() && (word.front() == '-' || (word.front() >= '0' && word.front() <= '9'));
}

const gripper::SetVariable &rowOf(const std::string &word)
{
    const std::string name = upper(word);
    std::vector<std::string> known;
    for (const gripper::SetVariable &row : gripper::setVariables) {
        if (row.name == name)
            return row;
        known.emplace_back(row.name);
    }
    if (isNumberLike(word))
        refuse(concat("there is no name before \"", word, '"'));
    refuse(concat("there is no variable \"", word, "\" to set", tools::suggestion(name, known)));
}

int valueFrom(const std::string &word)
{
    const std::optional<int> value = numberFrom(word, 0, maxValue);
    if (!value || word.size() > maxDigits)
        refuse(concat('"', word, "\" is not a number from 0 to 255 of at most three digits"));
    return *value;
}

struct Request
{
    std::vector<gripper::Pair> pairs;
    bool isSlow = false;
    bool needsGripper = false;
    bool entersBootloader = false;
};

Request requestFrom(const std::vector<std::string> &words)
{
    Request request;
    for (auto word = words.begin(); word != words.end(); ++word) {
        const gripper::SetVariable &row = rowOf(*word);
        if (const char *problem = refusalOf(row.name))
            throw Failure(ExitCode::WrongUsage, problem);
        const bool hasNumber = word + 1 != words.end() && isNumberLike(*(word + 1));
        if (!hasNumber && row.range != "any")
            refuse(concat(row.name, " needs a number (", row.range, ')'));
        request.pairs.emplace_back(row.name, hasNumber ? valueFrom(*++word) : anyValue);
        request.isSlow |= row.mayWait;
        request.needsGripper |= row.needsGripper;
        request.entersBootloader |= row.name == "BLD";
    }
    return request;
}

/// Polling stays muted, because the bootloader then has the line. Not interruptible: the daemon
/// mutes polling at the end of a jump, so the state of MUTE is known only after its reply.
bool sendIntoBootloader(Program &program, gripper::Connection &connection,
                        const std::vector<gripper::Pair> &pairs, gripper::Seconds timeout)
{
    gripper::Maintenance muted(connection.endpoint(), connection.options());
    const HeldInterruption untilReply;
    if (!connection.set(pairs, gripper::Deadline(timeout)))
        return false;
    muted.leaveMuted();
    program.output().note("polling stays muted until gripperctl set MUTE 0");
    return true;
}

void runSet(Program &program, const CLI::App &command)
{
    const Request request = requestFrom(wordsOf(command));
    const gripper::Options options = program.options();
    const gripper::Seconds timeout =
        request.isSlow ? program.timeoutOr(slowTimeout) : options.timeout;
    std::optional<int> id;
    if (request.needsGripper)
        id = program.listedGripperId();
    gripper::Connection connection(program.endpoint(), options, id);
    if (!connection.open(gripper::Deadline(options.timeout)))
        throw Failure(ExitCode::NoGripper,
                      concat("gripper ", *id, " has just disappeared: see gripperctl status"));
    bool isAcknowledged = false;
    if (request.entersBootloader)
        program.muting([&] {
            isAcknowledged = sendIntoBootloader(program, connection, request.pairs, timeout);
        });
    else
        isAcknowledged = connection.set(request.pairs, gripper::Deadline(timeout));
    if (!isAcknowledged)
        throw Failure(ExitCode::Refused,
                      "gripperd refused the request (nak): check the range of each number, and "
                      "the gripper (gripperctl status)");
    program.output().result("ack", {{"reply", "ack"}});
}

} // namespace

void addSet(CLI::App &app, Program &program)
{
    CLI::App &command =
        addCommand(app, program,
                   {"set", "Set variables of the protocol, in one request.",
                    "Numbers are 0 to 255. Settings for the next movement may come in any order.\n"
                    "SCN, SCN_BLOCK and BLD need no number.",
                    "set MSC 100"},
                   runSet);
    addWords(command, "NAME [NUMBER]...", 1, manyWords, join(namesToSet(), " "));
}

} // namespace gripperctl
