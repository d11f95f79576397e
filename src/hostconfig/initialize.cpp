// The initialize action.
#include "hostconfig/hostconfig.h"

int action_initialize(kor_options*) { return 1; }
