// The getrh action (being filled in).
#include "actions/actions.h"

int action_getrh(kor_options* opts)
{
    (void)opts;
    return 1;
}
