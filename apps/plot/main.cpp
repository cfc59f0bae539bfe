// kav-plot: draws recorded quotes.
#include "apps/plot/program.h"

int main(int argc, char** argv) { return kav_plot::run_program(argc, argv); }
