// mkvelk: writes VELK release images for kor (see mkvelk --help).
#include "cli.h"

int main(int argc, char** argv) { return mkvelk::run(argc, argv); }
