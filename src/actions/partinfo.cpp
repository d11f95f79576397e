// The partinfo action (being filled in).
#include "actions/actions.h"

int action_partinfo(kor_options* opts)
{
    (void)opts;
    return 1;
}
