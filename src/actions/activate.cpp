#include "actions/actions.h"

int action_activate(kor_options* opts)
{
    (void)opts;
    return 1;
}
