// SPDX-License-Identifier: MIT
// boardsim [options] -- COMMAND [ARGS...]: runs COMMAND against the simulated
// board. See boardsim/README.md.
#include "launcher.h"

int main(int argc, char** argv)
{
    return boardsim::runLauncher(argc, argv);
}
