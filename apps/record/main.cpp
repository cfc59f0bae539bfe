// kav-record: writes the quotes of a quote server and of multicast groups to files.
#include "apps/record/program.h"

int main(int argc, char** argv) { return kav_record::run_program(argc, argv); }
