// kav-watch: shows the quotes of a quote server and of multicast groups.
#include "apps/watch/program.h"

int main(int argc, char** argv) { return kav_watch::run_program(argc, argv); }
