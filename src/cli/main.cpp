#include "cli/cli.h"

int main(int argc, char** argv) { return kor_main(argc, argv); }
