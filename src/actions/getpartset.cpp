// The getpartset action (being filled in).
#include "actions/actions.h"

int action_getpartset(kor_options* opts)
{
    (void)opts;
    return 1;
}
