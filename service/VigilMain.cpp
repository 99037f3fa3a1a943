#include "service/VigilMain.h"

#include <clocale>
#include <cstdio>
#include <exception>
#include <optional>

#include "service/VigilCommandLine.h"
#include "service/VigilExceptionDump.h"
#include "service/VigilService.h"

namespace Vigil {

namespace {

// The control code of each control command bit.
uint32_t ControlCode(uint32_t commands) {
    if (commands & Command::kStart) return 0;
    if (commands & Command::kStop) return 1;
    if (commands & Command::kPause) return 2;
    if (commands & Command::kContinue) return 3;
    return 4;
}

void Announce(const char* text) {
    std::fputs(text, stdout);
    std::fflush(stdout);
}

int RunRole(Service& service, const CommandLine& commandLine) {
    const uint32_t commands = commandLine.commands;
    if (commands & Command::kInstall) {
        service.install(fullAccountName(commandLine), commandLine.password,
                        commandLine.dependencies, commandLine.autoStart);
        Announce("Service sucessfully installed.\n");
        return 0;
    }
    if (commands & Command::kUninstall) {
        service.uninstall();
        Announce("Service sucessfully uninstalled.\n");
        return 0;
    }
    if (commands & (Command::kStart | Command::kStop | Command::kPause | Command::kContinue |
                    Command::kRestart)) {
        service.control(ControlCode(commands));
        Announce("Service successfully executed control command.\n");
        return 0;
    }
    std::setlocale(LC_ALL, "");
    service.execute();
    return static_cast<int>(service.exitCode());
}

}  // namespace

int RunMain(int argc, char** argv) {
    CommandLine commandLine;
    parseCommandLine(commandLine, argc, argv);

    // The constructor stands outside the handler of the roles: a failure there means that no role
    // can run at all, which is said as such before the dump of its reasons.
    std::optional<Service> service;
    try {
        service.emplace(commandLine.port);
    } catch (const Osb::Exception& failure) {
        std::fputs("MirelleStudioFileAgent: the service could not be set up.\n", stderr);
        const int code = DumpException(failure, stderr, -1);
        return code == 0 ? -1 : code;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "MirelleStudioFileAgent: the service could not be set up: %s\n",
                     failure.what());
        return -1;
    } catch (...) {
        std::fputs("MirelleStudioFileAgent: the service could not be set up.\n", stderr);
        return -1;
    }

    int exitCode = 0;
    try {
        exitCode = RunRole(*service, commandLine);
    } catch (const Osb::Exception& failure) {
        exitCode = DumpException(failure, stderr, exitCode);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "MirelleStudioFileAgent: unexpected failure: %s\n", failure.what());
        exitCode = -1;
    } catch (...) {
        std::fputs("MirelleStudioFileAgent: unexpected failure.\n", stderr);
        exitCode = -1;
    }
    return exitCode;
}

}  // namespace Vigil
