// The set management actions and the info report action.
#pragma once

struct kor_options;

[[nodiscard]] int action_info(kor_options* opts);
[[nodiscard]] int action_activate(kor_options* opts);
[[nodiscard]] int action_upgrade(kor_options* opts);
[[nodiscard]] int action_verify(kor_options* opts);
[[nodiscard]] int action_partset(kor_options* opts);
[[nodiscard]] int action_partinfo(kor_options* opts);
[[nodiscard]] int action_getpartset(kor_options* opts);
[[nodiscard]] int action_getrh(kor_options* opts);
[[nodiscard]] int action_mount(kor_options* opts);
