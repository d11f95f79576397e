#!/usr/bin/env bash
# contrib_check.sh man|completion|uboot|systemd SOURCE_DIR WORK_DIR: exit 0 passed, 1 failed, 77 skipped (no tool).
set -uo pipefail
check=$1 src=$2 work=$3 fails=0 && mkdir -p "$work"
fail() { echo "FAIL: $*"; fails=$((fails + 1)); }
have() { command -v "$1" >/dev/null 2>&1 || { echo "$1 missing: $check only partly checked"; false; }; }
lint() { local out; out=$("$@" 2>&1) || fail "$* exited with $?"; [ -z "$out" ] || fail "$*: $out"; }  # any output is a finding

case $check in
man)
  for page in "$src/docs/kor.8" "$src/docs/mkvelk.1"; do
    ! have mandoc || lint mandoc -T lint -W warning "$page"; ! have groff || lint groff -ww -z -man "$page"; done
  # Every action word of the usage text has its entry in kor.8.
  for word in $(sed -n '/where ACTION usage must be/,/COMMON OPTIONS/s/^ *"  \([a-z]*\).*/\1/p' "$src/src/cli/options.cpp"); do
    awk -v w="$word" 'prev == ".TP" && ($2 == w || $2 == "\"" w || index($2, "\"" w " ") == 1) { found = 1 }
      { prev = $1 } END { exit !found }' "$src/docs/kor.8" || fail "kor.8 lacks the action $word"
  done ;;
completion)
  source "$src/contrib/bash-completion/kor"
  [ "$(complete -p kor)" = "complete -F _kor kor" ] || fail "kor is not completed by _kor"
  while IFS='|' read -r words want; do  # command line up to the cursor | expected candidates
    read -r -a COMP_WORDS <<<"$words"
    [[ $words == *" " ]] && COMP_WORDS+=("")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1)) && _kor
    [ "${COMPREPLY[*]}" = "$want" ] || fail "completing '$words': got '${COMPREPLY[*]}', want '$want'"
  done <<'ROWS'
kor up|upgrade
kor -v upgrade v|validate
kor upgrade |activate validate test
kor getpartset |0 1 2 active
kor install rel.velk |-1 0 1 2
kor install rel.velk 1 -st|-stream
kor -cf|-cfg= -cfgbak=
kor install rel.velk 1 -ce|-cert=
kor partinfo 4 POOL 0x100 -p|-product= -platform= -pn=
ROWS
  ;;
uboot)
  script="$src/contrib/u-boot/kor-boot.cmd"
  for w in 'kor_sn SAFESET' 'KORSET=${kor_booting}' '0x1ff' '${kor_iface} write' '0x20524f4b'; do grep -qF "$w" "$script" || fail "kor-boot.cmd lacks '$w'"; done
  have mkimage || exit 77
  mkimage -A arm -T script -C none -n "kor boot" -d "$script" "$work/kor-boot.scr" >/dev/null || fail "mkimage could not compile kor-boot.cmd"
  mkimage -l "$work/kor-boot.scr" | grep -q 'ARM Linux Script' || fail "kor-boot.scr is no ARM script" ;;
systemd)
  while IFS='|' read -r name line; do  # unit | a line it must hold
    grep -qxF "$line" "$src/contrib/systemd/$name" || fail "$name lacks '$line'"
  done <<'ROWS'
kor-validate.service|Type=oneshot
kor-validate.service|ExecStart=/usr/sbin/kor upgrade validate
kor-update.service|Type=oneshot
kor-update.service|ExecStart=/usr/sbin/kor install ${KOR_UPDATE_URL} -1 -noactivate -retries=5 -timeout=3600 $KOR_UPDATE_OPTIONS
kor-update.service|ExecStartPost=/usr/sbin/kor upgrade activate -test
ROWS
  # verify wants an executable behind ExecStart: the shell stands in for kor.
  for name in kor-validate.service kor-update.service; do
    ! have systemd-analyze || { sed "s|/usr/sbin/kor|$(command -v bash)|" "$src/contrib/systemd/$name" >"$work/$name" &&
      lint systemd-analyze verify --man=no "$work/$name"; }
  done ;;
*) echo "unknown check $check"; exit 1 ;;
esac
[ $fails -eq 0 ] && echo "$check: passed"
