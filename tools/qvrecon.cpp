// qvrecon: time-of-flight captures to depth, IR, point clouds and registered colour,
// without writing code. Each sub-command (simulate, depth, register, info, demo, record) lives
// in its own file; this one puts them on the command line and runs the one given.
#include <cstdio>
#include <exception>
#include <string>

#include <CLI/CLI.hpp>
#include <qvreconstruction/reconstruction.h>

#include "command_line.h"
#include "output_files.h"

using namespace qvrecon;

int main(int argc, char** argv)
{
    InstallCleanupHandlers();
    CLI::App app{"qvrecon: time-of-flight captures to depth, IR, point clouds and registered colour"};
    app.require_subcommand(1);
    std::string version;
    qvapi::Reconstruction::CreateInstance()->GetAlgorithmVersion(version);
    app.set_version_flag("--version", "qvrecon " QVRECON_VERSION " (algorithms " + version + ")");

    const Command commands[] = {AddSimulateCommand(app), AddDepthCommand(app), AddRegisterCommand(app),
                                AddInfoCommand(app), AddDemoCommand(app), AddRecordCommand(app),
#ifdef QV_HAVE_VIEWER
                                AddViewCommand(app),
#endif
    };

    // Exit codes: 0 done, 1 a run that failed, 2 a command line that cannot be run.
    // Every failure is one line on stderr.
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "qvrecon: %s (see qvrecon --help)\n", OneLine(e.what()).c_str());
        return 2;
    }
    try {
        for (const Command& command : commands)
            if (*command.app)
                return command.run();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qvrecon: %s\n", OneLine(e.what()).c_str());
        return 1;
    }
    return 1;
}
