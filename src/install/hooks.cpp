// Optional install and activate hooks, linked in or loaded as a plugin.
#include "install/install.h"

const kor_hooks* kor_hooks_get()
{
    static const kor_hooks none{};
    return &none;
}

int kor_plugin_load(const char*) { return -1; }
