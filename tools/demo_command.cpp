// qvrecon demo: a simulated scene through the whole pipeline.
#include <memory>

#include "command_line.h"
#include "demo.h"

namespace qvrecon {

Command AddDemoCommand(CLI::App& app)
{
    const auto a = std::make_shared<DemoArgs>();
    CLI::App* cmd = app.add_subcommand("demo", "Simulate a scene and run the whole pipeline on it");
    cmd->add_option("--out", a->out, "Output folder, created if missing")->default_val("qvrecon-demo");
    cmd->add_option("--calib", a->calib, "Calibration file; the sample module if omitted");
    return {cmd, [a] { return RunDemo(*a); }};
}

}  // namespace qvrecon
