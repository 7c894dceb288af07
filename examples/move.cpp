// Prints the position of gripper 9 and requests another one, if the gripper is active.
//
//     move ADDRESS POSITION
//
// It does not wait for the end of the movement. grip.cpp does.
//
//     g++ -o move move.cpp
#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <unistd.h>

int main(int, char **arguments)
{
    const sockaddr_in address{AF_INET, htons(63352), {inet_addr(arguments[1])}, {}};
    const int daemon = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(daemon, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return 1;
    alarm(5);
    FILE *replies = fdopen(daemon, "r");
    char status[16] = {}, position[16] = {}, reply[4] = {};
    // The reply to a GET is a line. "?" is the value of a gripper that is not found.
    dprintf(daemon, "GET STA\nGET POS\n");
    if (fscanf(replies, "STA %15s POS %15s%*c", status, position) == 2)
        printf("from %s\n", position);
    if (std::strcmp(status, "3") != 0) {
        fprintf(stderr, "the gripper is not active\n");
        return 1;
    }
    // The reply to a SET has three characters and no line ending.
    dprintf(daemon, "SET POS %s SPE 255 FOR 100 GTO 1\n", arguments[2]);
    if (fscanf(replies, "%3c", reply) == 1)
        printf("to %s: %s\n", arguments[2], reply);
    return std::strcmp(reply, "ack") != 0;
}
