#include "vel/vel_tool.h"

#include "panel/cli.h"

int main(int argc, char** argv) { return vel_tool::Main(argc, argv, panel::RunCommand); }
