// The partset action (being filled in).
#include "actions/actions.h"

int action_partset(kor_options* opts)
{
    (void)opts;
    return 1;
}
