// Access: pairing codes, tokens, the lease, hosts and origins.
#include "assertions.h"

#include <lease.h>
#include <names.h>
#include <sessions.h>

#include <chrono>
#include <set>
#include <string>

using namespace gateway;
using namespace std::chrono_literals;

namespace {

const Sessions::Time start{};

gripper::ReadingTime at(std::chrono::milliseconds time)
{
    return {start + time, {}};
}

Names namesWith(bool hasTls = false)
{
    return Names({hasTls, 63353, "Robot7", {"gripper.plant"}, {"https://proxy.plant"}});
}

const Claimant anna{1, Role::Operate, "192.0.2.1"};
const Claimant ben{2, Role::Maintain, "192.0.2.2"};

} // namespace

TEST(aCodeWorksOnce)
{
    Sessions sessions;
    const std::string code = sessions.newCode(Role::Operate, start);
    const auto token = sessions.redeem(code, start);
    CHECK(token);
    CHECK(sessions.find(*token, start)->role == Role::Operate);
    CHECK(!sessions.redeem(code, start));
}

TEST(caseAndMinusSignsOfACodeDoNotMatter)
{
    Sessions sessions;
    std::string code = sessions.newCode(Role::View, start);
    CHECK(code.size() == 9 && code[4] == '-');
    code.erase(4, 1);
    for (char &character : code)
        character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    CHECK(sessions.redeem(' ' + code, start));
}

TEST(aCodeEndsAfterFiveMinutes)
{
    Sessions sessions;
    const std::string code = sessions.newCode(Role::View, start);
    CHECK(!sessions.redeem(code, start + 5min));
    const std::string other = sessions.newCode(Role::View, start);
    CHECK(sessions.redeem(other, start + 5min - 1ms));
}

TEST(aCodeEndsWithTheFifthWrongAttempt)
{
    for (const int attempts : {4, 5}) {
        Sessions sessions;
        const std::string code = sessions.newCode(Role::View, start);
        for (int i = 0; i < attempts; ++i)
            CHECK(!sessions.redeem("AAAA-AAAA", start));
        CHECK(sessions.redeem(code, start).has_value() == (attempts == 4));
    }
}

TEST(theOldestOfManyCodesEnds)
{
    Sessions sessions;
    const std::string first = sessions.newCode(Role::View, start);
    for (std::size_t i = 1; i < Sessions::maxCodes; ++i)
        sessions.newCode(Role::View, start + 1s);
    const std::string last = sessions.newCode(Role::View, start + 2s);
    CHECK(!sessions.redeem(first, start + 2s));
    CHECK(sessions.redeem(last, start + 2s));
}

TEST(aTokenEndsAfterEightHours)
{
    Sessions sessions;
    const auto token = sessions.redeem(sessions.newCode(Role::View, start), start);
    const auto session = sessions.find(*token, start + 8h - 1ms);
    CHECK(session);
    CHECK(sessions.findByNumber(session->number, start + 8h - 1ms));
    CHECK(!sessions.find(*token, start + 8h));
    CHECK(!sessions.findByNumber(session->number, start + 8h));
}

TEST(aClosedSessionHasNoToken)
{
    Sessions sessions;
    const auto token = sessions.redeem(sessions.newCode(Role::View, start), start);
    sessions.close(sessions.find(*token, start)->number);
    CHECK(!sessions.find(*token, start));
}

TEST(anUnknownTokenIsNoSession)
{
    Sessions sessions;
    sessions.redeem(sessions.newCode(Role::View, start), start);
    CHECK(!sessions.find("", start));
    CHECK(!sessions.find("A", start));
}

TEST(manySessionsEndTheOneThatEndsFirst)
{
    Sessions sessions;
    const auto first = sessions.redeem(sessions.newCode(Role::View, start), start);
    std::set<std::string> tokens;
    for (std::size_t i = 0; i < Sessions::maxSessions; ++i)
        tokens.insert(*sessions.redeem(sessions.newCode(Role::View, start + 1s), start + 1s));
    CHECK(tokens.size() == Sessions::maxSessions);
    CHECK(!sessions.find(*first, start + 1s));
    for (const std::string &token : tokens)
        CHECK(sessions.find(token, start + 1s));
}

TEST(onePageHasTheLease)
{
    Lease lease;
    CHECK(lease.take(anna, false, at(0ms)) == Lease::Taken::Free);
    const std::string key = lease.holder()->key;
    CHECK(lease.holds(key, anna.session));
    CHECK(!lease.holds(key, ben.session));
    CHECK(!lease.holds("", anna.session));
    CHECK(lease.take(ben, false, at(0ms)) == Lease::Taken::No);
    CHECK(lease.holds(key, anna.session));
}

TEST(theSamePageInAnotherTabDoesNotHaveTheLease)
{
    Lease lease;
    lease.take(anna, false, at(0ms));
    CHECK(lease.take(anna, false, at(0ms)) == Lease::Taken::No);
}

TEST(aTakenOverLeaseIsLostForItsFormerHolder)
{
    Lease lease;
    lease.take(anna, false, at(0ms));
    const std::string key = lease.holder()->key;
    const auto number = lease.holder()->number;
    CHECK(lease.take(ben, true, at(0ms)) == Lease::Taken::FromAnother);
    CHECK(!lease.holds(key, anna.session));
    CHECK(lease.holder()->number == number + 1);
}

TEST(theLeaseEndsFiveSecondsAfterItsRenewal)
{
    Lease lease;
    lease.take(anna, false, at(0ms));
    lease.renew(start + 4s);
    CHECK(!lease.expire(start + 9s - 1ms));
    CHECK(lease.expire(start + 9s));
    CHECK(!lease.expire(start + 9s));
    CHECK(!lease.holder());
    CHECK(lease.take(ben, false, at(9s)) == Lease::Taken::Free);
}

TEST(hostsAreTheAddressTheMachineAndTheNames)
{
    const Names names = namesWith();
    for (const char *host :
         {"192.0.2.9:63353", "robot7:63353", "ROBOT7:63353", "gripper.plant:63353", "proxy.plant"})
        CHECK(names.isOwnHost(host, "192.0.2.9"));
    for (const char *host :
         {"", "192.0.2.9", "192.0.2.9:80", "192.0.2.8:63353", "evil.example:63353",
          "robot7.evil.example:63353", "localhost:63353", "192.0.2.9:63353:1", "proxy.plant:63353",
          "192.0.2.9:63353@evil.example"})
        CHECK(!names.isOwnHost(host, "192.0.2.9"));
}

TEST(localhostIsAHostOfTheLoopbackInterfaceOnly)
{
    const Names names = namesWith();
    CHECK(names.isOwnHost("localhost:63353", "127.0.0.1"));
    CHECK(names.isOwnHost("127.0.0.1:63353", "127.0.0.1"));
    CHECK(names.isOwnHost("[::1]:63353", "::1"));
    CHECK(!names.isOwnHost("127.0.0.1:63353", "192.0.2.9"));
}

TEST(thePortMayBeLeftOutIfItIsTheDefault)
{
    const Names names({true, 443, "robot7", {}, {}});
    CHECK(names.isOwnHost("robot7", "192.0.2.9"));
    CHECK(names.isOwnHost("robot7:443", "192.0.2.9"));
    CHECK(names.isOwnOrigin("https://robot7", "robot7"));
}

TEST(anOriginIsTheSchemeAndTheHost)
{
    const std::string host = "robot7:63353";
    CHECK(namesWith().isOwnOrigin("http://robot7:63353", host));
    CHECK(namesWith(true).isOwnOrigin("https://robot7:63353", host));
    for (const char *origin :
         {"", "null", "https://robot7:63353", "http://robot7", "http://evil",
          "http://robot7:63353.evil", "http://gripper.plant:63353", "https://proxy.plant"})
        CHECK(!namesWith().isOwnOrigin(origin, host));
}

TEST(theOriginOfAProxyGoesWithItsHost)
{
    CHECK(namesWith().isOwnOrigin("https://proxy.plant", "proxy.plant"));
    CHECK(!namesWith().isOwnOrigin("https://proxy.plant", "gripper.plant:63353"));
}

TEST(loopbackNames)
{
    for (const char *host : {"localhost:63353", "127.0.0.1", "[::1]:63353", "::1"})
        CHECK(Names::isLoopback(host));
    for (const char *host : {"", "robot7", "127.0.0.1.evil.example", "192.0.2.9:63353", "0.0.0.0"})
        CHECK(!Names::isLoopback(host));
}

TEST(originsHaveASchemeAndNoPath)
{
    CHECK(isOrigin("https://robot7.plant"));
    CHECK(isOrigin("http://robot7:8080"));
    for (const char *text : {"", "robot7", "ftp://robot7", "https://", "https://robot7/", "null"})
        CHECK(!isOrigin(text));
}

int main()
{
    return runTests();
}
