// kav-watch: shows the quotes of a quote server.
#include "apps/watch/program.h"

int main(int argc, char** argv) { return kav_watch::run_program(argc, argv); }
