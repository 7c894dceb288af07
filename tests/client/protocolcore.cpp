// The protocol core of libgripper: requests, replies, images, addresses.
#include "assertions.h"

#include <gripper/connection.h>
#include <gripper/errors.h>
#include <gripper/image.h>
#include <gripper/protocol.h>

#include <limits>
#include <string>
#include <vector>

using namespace gripper;

namespace {

Batch mixedBatch()
{
    Batch batch;
    batch.get("pos").set({{"POS", 10}, {"gto", 1}}).get("SID");
    return batch;
}

const std::string mixedReplies = "POS 80\nackSID [2, 9]\n";

void checkMixed(const ReplyReader &reader)
{
    const auto &replies = reader.replies();
    CHECK(replies.size() == 3);
    CHECK(replies[0].name == "POS" && replies[0].value == "80");
    CHECK(replies[1].name.empty() && replies[1].isAcknowledged());
    CHECK(replies[2].name == "SID" && replies[2].value == "[2, 9]");
}

/// Feeds the bytes one by one, so that no later part hides what the first bytes show.
void feed(const Batch &batch, const std::string &bytes)
{
    ReplyReader reader;
    reader.expect(batch);
    for (const char byte : bytes)
        reader.append({&byte, 1});
}

/// The reply of the daemon to the batch of an image, with some other values.
std::string repliesWith(const Batch &batch, const std::string &name, const std::string &value)
{
    std::string replies;
    for (std::size_t at = 0; at < batch.bytes().size(); at += 8) {
        const std::string own = batch.bytes().substr(at + 4, 3);
        const std::string usual = own == "SID" ? "[2, 9]" : own == "DRI" ? "RUNNING" : "1";
        replies += own + ' ' + (own == name ? value : usual) + '\n';
    }
    return replies;
}

Image imageWith(const std::string &name, const std::string &value)
{
    ReplyReader reader;
    reader.expect(imageRequests());
    reader.append(repliesWith(imageRequests(), name, value));
    return decodeImage(9, reader.replies(), ReadingTime::now());
}

} // namespace

TEST(requestsAreLinesInUpperCase)
{
    CHECK(mixedBatch().bytes() == "GET POS\nSET POS 10 GTO 1\nGET SID\n");
    CHECK(mixedBatch().sets() == "SET POS 10 GTO 1");
    CHECK(mixedBatch().size() == 3);
    CHECK(mixedBatch().needsGripper());
    CHECK(!Batch().set({{"MUTE", 0}}).needsGripper());
}

TEST(wrongRequestsAreRefused)
{
    for (const char *name : {"", "PO", "POSX", "P S", "PO\n", "PO\xc3"})
        CHECK_THROWS(InvalidValue, Batch().get(name));
    CHECK_THROWS(InvalidValue, Batch().set({}));
    CHECK_THROWS(InvalidValue, Batch().set({{"POS", 256}}));
    CHECK_THROWS(InvalidValue, Batch().set({{"POS", -1}}));
    CHECK_THROWS(InvalidValue, Batch().set({{"XYZ", 1}}));
    CHECK_THROWS(InvalidValue, Batch().set({{"POS 1 SPE", 1}}));
    for (const SetVariable &row : setVariables)
        Batch().set({{std::string(row.name), 1}});
}

TEST(repliesMayArriveInAnyTwoPieces)
{
    const Batch batch = mixedBatch();
    for (std::size_t cut = 0; cut <= mixedReplies.size(); ++cut) {
        ReplyReader reader;
        reader.expect(batch);
        reader.append(mixedReplies.substr(0, cut));
        CHECK(reader.isComplete() == (cut == mixedReplies.size()));
        CHECK(reader.isComplete() || reader.replies().empty());
        reader.append(mixedReplies.substr(cut));
        CHECK(reader.isComplete());
        checkMixed(reader);
    }
}

TEST(aReaderWorksForManyBatches)
{
    const Batch batch = mixedBatch();
    ReplyReader reader;
    for (int i = 0; i < 3; ++i) {
        reader.expect(batch);
        reader.append(mixedReplies);
        checkMixed(reader);
    }
}

TEST(foreignBytesAreAnErrorAtOnce)
{
    const Batch batch = mixedBatch();
    for (const char *bytes : {"H", "POS80", "ack", "\n", "POS 8\nacx", "POS 8\nSID", "POS 8\n?",
                              "POS 8\nackPOS", "POS 80\nackSID [2, 9]\nx"})
        CHECK_THROWS(ProtocolError, feed(batch, bytes));
    ReplyReader idle;
    CHECK_THROWS(ProtocolError, idle.append("x"));
}

TEST(aReplyHasALimit)
{
    Batch batch;
    batch.get("DRI");
    const std::string longest(ReplyReader::maxReplyLength - 5, 'x');
    feed(batch, "DRI " + longest + '\n');
    CHECK_THROWS(ProtocolError, feed(batch, "DRI " + longest + "xx\n"));
    ReplyReader reader;
    reader.expect(batch);
    CHECK_THROWS(ProtocolError, reader.append(std::string(1000000, 'D')));
}

TEST(refusalsAreReplies)
{
    Batch batch;
    batch.set({{"MOD", 2}});
    ReplyReader reader;
    reader.expect(batch);
    reader.append("nak");
    CHECK(!reader.replies().front().isAcknowledged());
    CHECK(reader.replies().front().hasValue());
}

TEST(anImageAsksForTheRequestFirst)
{
    const std::string &bytes = imageRequests().bytes();
    CHECK(bytes.find("GET PRE\nGET GTO\n") == 0);
    CHECK(bytes.find("GET OBJ\n") != std::string::npos);
    CHECK(imageRequests().sets().empty());
}

TEST(valuesHaveTheirTypes)
{
    CHECK(imageWith("POS", "80").position == 80);
    CHECK(imageWith("FLT", "07").fault == 7);
    CHECK(imageWith("PRE", "080").requestedPosition == 80);
    CHECK(imageWith("NCY", "4294967295").cycles == 4294967295);
    CHECK(imageWith("SNU", "ABC-007").serialNumber == "ABC-007");
    CHECK(imageWith("ACT", "0").active == false);
    CHECK(imageWith("SID", "[]").listed.empty());
    CHECK((imageWith("SID", "[2, 9]").listed == std::vector<int>{2, 9}));
}

TEST(anAbsentValueIsEmpty)
{
    const Image image = imageWith("POS", "?");
    CHECK(!image.position);
    CHECK(image.present && !image.stale);
    CHECK(!imageWith("STA", "?").present);
    CHECK(imageWith("STA", "?").stale);
}

TEST(valuesAreStaleWhileTheLinkIsDown)
{
    const Image image = imageWith("DRI", "ERR_SCANNING (EIO)");
    CHECK(image.stale && image.present);
    CHECK(image.line.text == "ERR_SCANNING (EIO)");
    CHECK(!image.line.running && !image.line.scanning);
    CHECK(imageWith("DRI", "SCANNING").line.scanning);
    CHECK(imageWith("UPG", "1").line.upgrading);
}

TEST(valuesOfAnotherFormAreAnError)
{
    for (const char *value : {"", " 1", "1 ", "-1", "0x1", "1.5", "99999999999999999999", "ab"})
        CHECK_THROWS(ProtocolError, imageWith("POS", value));
    CHECK_THROWS(ProtocolError, imageWith("POS", "4294967295"));
    CHECK_THROWS(ProtocolError, imageWith("ACT", "2"));
    for (const char *value : {"", "[", "2, 9", "[2,9]", "[2, ]", "[2, 9", "[x]"})
        CHECK_THROWS(ProtocolError, imageWith("SID", value));
}

TEST(addressesHaveManyForms)
{
    const auto form = [](const std::string &text) { return Endpoint::fromText(text).text(); };
    CHECK(form("gripper.local") == "gripper.local:63352");
    CHECK(form("10.0.0.2:7") == "10.0.0.2:7");
    CHECK(form("::1") == "[::1]:63352");
    CHECK(form("[::1]") == "[::1]:63352");
    CHECK(form("[::1]:65535") == "[::1]:65535");
    CHECK(form("fe80::2%eth0") == "[fe80::2%eth0]:63352");
    CHECK(Endpoint::fromText("a", 5).port == 5);
    for (const char *text : {"", ":", ":5", "a:", "a:0", "a:65536", "a:x", "a b", "[::1", "[]",
                             "[::1]5", "a]", "[::1]:", "a:5 "})
        CHECK_THROWS(InvalidValue, Endpoint::fromText(text));
    CHECK_THROWS(InvalidValue, Endpoint::fromText("a", 0));
}

TEST(aTimeoutIsGreaterThanZero)
{
    for (const double seconds : {0.0, -1.0, std::numeric_limits<double>::quiet_NaN()})
        CHECK_THROWS(InvalidValue, Deadline{Seconds(seconds)});
    CHECK(!Deadline(Seconds(std::numeric_limits<double>::infinity())).isOver());
    CHECK(!Deadline(Seconds(1e300)).isOver());
}

int main()
{
    return runTests();
}
