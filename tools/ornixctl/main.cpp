// ornixctl: look at an Ornix camera through its driver, the way v4l2-ctl
// looks at a V4L2 device. The camera is the simulated one, described by a
// JSON profile (the built-in default when none is given).
#include <iostream>
#include <string>
#include <vector>

#include "ornixctl/command_line.h"

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    return ornixctl::RunCommandLine(args, std::cout, std::cerr);
}
