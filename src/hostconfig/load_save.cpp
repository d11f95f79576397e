// Loading the metadata with fallbacks and saving it back.
#include "hostconfig/hostconfig.h"

int load(kor_options*, korl_data*, hostconfig*) { return -1; }
int save_hostconfig(kor_options*, korl_data*, hostconfig*, const char*) { return -1; }
