// Prints the position of gripper 9 and moves this gripper, which must be active.
//
//     move ADDRESS POSITION
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
    char position[16] = {}, reply[4] = {};
    // The reply to a GET is a line.
    dprintf(daemon, "GET POS\n");
    if (fscanf(replies, "POS %15s%*c", position) == 1)
        printf("from %s\n", position);
    // The reply to a SET has three characters and no line ending.
    dprintf(daemon, "SET POS %s SPE 255 FOR 100 GTO 1\n", arguments[2]);
    if (fscanf(replies, "%3c", reply) == 1)
        printf("to %s: %s\n", arguments[2], reply);
    return std::strcmp(position, "?") == 0 || std::strcmp(reply, "ack") != 0;
}
