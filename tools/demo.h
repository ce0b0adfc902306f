// The main job on an embedded default: simulate a scene with the sample module, run
// the whole pipeline, write every picture into one folder and print what it measured.
#ifndef QVRECON_DEMO_H
#define QVRECON_DEMO_H

#include <string>

namespace qvrecon {

struct DemoArgs {
    std::string out = "qvrecon-demo";
    std::string calib;  // empty: the sample module
};

int RunDemo(const DemoArgs& args);

}  // namespace qvrecon

#endif
