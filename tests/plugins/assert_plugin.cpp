// Test plugin: its activate hook breaks a precondition of kor's own, as a faulty integration might, so that a test
// sees what a failed assertion does to a run.
#include "korl/korl.h"

struct hostconfig;

extern "C" int kor_activate_hook_post(korl_data*, hostconfig*) { return korl_actset_get(nullptr); }
