// The mount action (being filled in).
#include "actions/actions.h"

int action_mount(kor_options* opts)
{
    (void)opts;
    return 1;
}
