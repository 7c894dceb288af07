#include "demo.h"
#include "options.h"
#include "paircommand.h"
#include "service.h"

#include <standarddescriptors.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>

int main(int argc, char **argv)
{
    using namespace gateway;
    tools::occupyStandardDescriptors();
    try {
        Options options;
        if (const auto status = readOptions(argc, argv, options))
            return *status;
        if (options.pairRole)
            return runPairCommand(options);
        // A peer that has closed its connection is an error of the write, not of the program.
        std::signal(SIGPIPE, SIG_IGN);
        std::unique_ptr<Demo> demo;
        if (options.isDemo) {
            if (!Demo::isIsolated())
                Demo::isolate(argv);
            demo = std::make_unique<Demo>();
            options.pairSocket = demo->folder() + "/pair.sock";
            // The options may name the daemon of a robot, which no demo moves.
            options.daemon = Options().daemon;
        }
        return serve(options, demo.get());
    } catch (const std::exception &error) {
        std::fprintf(stderr, "gripper-gateway: %s\n", error.what());
        return 1;
    }
}
