// The default partition layout with its pools, as the install targets plan
// against it: built once from the default hostconfig, which must load.
#pragma once

#include <cstdlib>

#include "hostconfig/hostconfig.h"
#include "korl/korl.h"

namespace fuzz {

inline void load_default_layout(korl_data* layout)
{
    hostconfig hc;
    if (hostconfig_new(&hc, HOSTCONFIG_MAX) != 1 || hostconfig_default(&hc) != 1 ||
        korl_hostconfig_import(layout, &hc) != 1)
        std::abort();
    korl_partpool_generate(layout);
}

}  // namespace fuzz
