// The reports the set actions print with -v: the metadata report followed
// by the upgrade states of sets 1 and 2.
#pragma once

struct korl_data;

void print_set_reports(korl_data* d);
