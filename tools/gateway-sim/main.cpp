// orvane-gateway-sim: serves simulated CAN ports of an Orvane gateway until
// SIGINT or SIGTERM, then prints its counters.
#include "GatewaySim.h"
#include "SimOptions.h"

#include <csignal>
#include <cstdio>
#include <string>

using namespace GatewaySim;

int main(int argc, char** argv)
{
    SSimOptions oOptions;
    std::string sError;
    switch (ParseSimOptions(argc, argv, oOptions, sError))
    {
    case EParseResult::eHelp:
        std::fputs(HelpText(argv[0]).c_str(), stdout);
        return 0;
    case EParseResult::eError:
        std::fprintf(stderr, "%s: %s\nTry '%s --help'.\n", argv[0], sError.c_str(), argv[0]);
        return 2;
    case EParseResult::eRun:
        break;
    }

    // Every thread inherits the blocked stop signals; only sigwait below
    // takes them.
    sigset_t oStopSignals;
    sigemptyset(&oStopSignals);
    sigaddset(&oStopSignals, SIGINT);
    sigaddset(&oStopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &oStopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    CGatewaySim oSim(oOptions, stdout);
    if (!oSim.Start(sError))
    {
        std::fprintf(stderr, "%s: %s\n", argv[0], sError.c_str());
        return 1;
    }
    int nSignal = 0;
    sigwait(&oStopSignals, &nSignal);
    oSim.Stop();
    std::printf("gateway-sim: stopped by signal %d; counters: %s\n", nSignal, oSim.Counters().Format().c_str());
    return 0;
}
