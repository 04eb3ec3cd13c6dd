#include "cli/Cli.h"

int main(int argc, char** argv) { return almanor::cli::run(argc, argv); }
