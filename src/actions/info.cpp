// The info action.
#include "actions/actions.h"

int action_info(kor_options*) { return 1; }
