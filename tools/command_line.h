// What the sub-commands of qvrecon share: the options every one takes, and how each
// adds itself to the command line.
#ifndef QVRECON_COMMAND_LINE_H
#define QVRECON_COMMAND_LINE_H

#include <functional>
#include <string>

#include "simulator.h"

#include <CLI/CLI.hpp>

#include "calibration_file.h"

namespace qvrecon {

// A floating-point option inside [lo, hi]; NaN and infinities are refused.
CLI::Validator Within(double lo, double hi);
// The simulator's ranges (sim/simulator.h), the same as Python's.
inline CLI::Validator Within(const qvsim::ValueRange& r) { return Within(r.lo, r.hi); }

struct Common {
    std::string out;
    std::string calib;  // empty: the built-in sample module
    int device = 0;
};

// Adds --out (when the sub-command writes files), --calib and --device.
void AddCommon(CLI::App* cmd, Common& c, const std::string& defaultOut, bool writes = true);

// The calibration named by --calib, or the sample module.
ModuleCalibration LoadCalibration(const Common& c);

// A message as one line: line breaks become spaces.
std::string OneLine(std::string text);

// `name` inside `folder`.
std::string In(const std::string& folder, const std::string& name);

// A sub-command on the command line, and what runs it once the line is parsed (its
// exit code; failures are thrown).
struct Command {
    CLI::App* app;
    std::function<int()> run;
};

Command AddSimulateCommand(CLI::App& app);
Command AddDepthCommand(CLI::App& app);
Command AddRegisterCommand(CLI::App& app);
Command AddInfoCommand(CLI::App& app);
Command AddDemoCommand(CLI::App& app);
Command AddRecordCommand(CLI::App& app);
Command AddViewCommand(CLI::App& app);

}  // namespace qvrecon

#endif
