// The steps of the install action, shared by its source files.
#pragma once

#include "hostconfig/hostconfig.h"
#include "install/install.h"

// What one install keeps for its whole run.
struct install_run {
    kor_options* opts;
    korl_data data;
    korl_data stored;  // the record as loaded, before the plan was recorded
    hostconfig hc;
    install_ctx ctx;
    velk_keyring keys;  // the keys that may sign the image
    const char* source;
    int wanted_set;  // -1: choose automatically
    bool autoset;    // the set was chosen automatically
};

// A step's result when the install goes on; any other value is the status
// with which the install ends.
constexpr int INSTALL_GO_ON = -1;

// Release checks, recording of the plan and the check of kept partitions.
[[nodiscard]] int check_release(install_run* run);
[[nodiscard]] int record_plan(install_run* run);
[[nodiscard]] int check_kept(install_run* run);
// Every partition the plan writes is a block device large enough for it.
[[nodiscard]] int check_targets(install_run* run);
// The autoset claim, and the critical region: write, record, activate.
[[nodiscard]] int claim_autoset(install_run* run);
[[nodiscard]] int commit_install(install_run* run);
