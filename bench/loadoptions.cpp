#include "loadoptions.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <err.h>
#include <getopt.h>

namespace {

constexpr char usage[] =
    "usage: bench-load closed|paced|hold --port N --request TEXT --reply TEXT [--clients N]\n"
    "           [--depth N] [--rate N] [--seconds S] [--warm-up S] [--server PID]\n"
    "TEXT must contain its line feeds.\n";

LoadOptions::Mode modeOf(const char *word)
{
    if (std::strcmp(word, "closed") == 0)
        return LoadOptions::Mode::Closed;
    if (std::strcmp(word, "paced") == 0)
        return LoadOptions::Mode::Paced;
    if (std::strcmp(word, "hold") == 0)
        return LoadOptions::Mode::Hold;
    errx(2, "unknown mode %s", word);
}

void setOption(char option, const char *value, LoadOptions &options)
{
    switch (option) {
    case 'p':
        options.port = static_cast<std::uint16_t>(std::atoi(value));
        return;
    case 'q':
        options.request = value;
        return;
    case 'a':
        options.reply = value;
        return;
    case 'c':
        options.clients = static_cast<unsigned>(std::atoi(value));
        return;
    case 'd':
        options.depth = static_cast<unsigned>(std::atoi(value));
        return;
    case 'r':
        options.rate = std::atof(value);
        return;
    case 's':
        options.seconds = std::atof(value);
        return;
    case 'w':
        options.warmUpSeconds = std::atof(value);
        return;
    case 'P':
        options.server = std::atoi(value);
        return;
    default:
        std::fputs(usage, stderr);
        std::exit(2);
    }
}

} // namespace

LoadOptions readLoadOptions(int argc, char **argv)
{
    const option known[] = {
        {"port", required_argument, nullptr, 'p'},    {"request", required_argument, nullptr, 'q'},
        {"reply", required_argument, nullptr, 'a'},   {"clients", required_argument, nullptr, 'c'},
        {"depth", required_argument, nullptr, 'd'},   {"rate", required_argument, nullptr, 'r'},
        {"seconds", required_argument, nullptr, 's'}, {"warm-up", required_argument, nullptr, 'w'},
        {"server", required_argument, nullptr, 'P'},  {nullptr, 0, nullptr, 0},
    };
    LoadOptions options;
    for (int option = 0; (option = getopt_long(argc, argv, "", known, nullptr)) != -1;)
        setOption(static_cast<char>(option), optarg, options);
    if (optind != argc - 1 || options.port == 0 || options.clients == 0 || options.depth == 0 ||
        options.rate <= 0 || options.request.empty() || options.reply.empty() ||
        options.reply.back() != '\n') {
        std::fputs(usage, stderr);
        std::exit(2);
    }
    options.mode = modeOf(argv[optind]);
    return options;
}
