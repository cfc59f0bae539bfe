// kav-decode: decodes captured multicast datagrams to quotes.
#include "apps/decode/program.h"

int main(int argc, char** argv) { return kav_decode::run_program(argc, argv); }
