#!/usr/bin/env bash
# Checks of the manual pages and the integration files under contrib/, run by
# ctest:  contrib_check.sh CHECK SOURCE_DIR WORK_DIR
# Exit 0 passed, 1 failed, 77 skipped (the tool the check needs is missing).
set -uo pipefail
check=$1 src=$2 work=$3
mkdir -p "$work"
fails=0
fail() { echo "FAIL: $*"; fails=$((fails + 1)); }
have() { command -v "$1" >/dev/null 2>&1; }

# Any output of a linter is a finding.
lint() {
  local out
  out=$("$@" 2>&1) || fail "$* exited with $?"
  [ -z "$out" ] || fail "$*: $out"
}

check_man() {
  local page word
  for page in "$src/docs/kor.8" "$src/docs/mkvelk.1"; do
    if have mandoc; then lint mandoc -T lint -W warning "$page"; fi
    if have groff; then lint groff -ww -z -man "$page"; fi
  done
  # Every action word of the usage text has its entry in kor.8.
  for word in $(sed -n '/where ACTION usage must be/,/COMMON OPTIONS/p' \
      "$src/src/frontend/options.cpp" | sed -n 's/^ *"  \([a-z]*\).*/\1/p'); do
    awk -v w="$word" 'prev == ".TP" && ($2 == w || $2 == "\"" w || index($2, "\"" w " ") == 1) { found = 1 }
      { prev = $1 } END { exit !found }' "$src/docs/kor.8" || fail "kor.8 lacks the action $word"
  done
  have mandoc || have groff || { echo "neither mandoc nor groff: only the action words checked"; }
}

check_completion() {
  local row words want got
  # shellcheck source=/dev/null
  source "$src/contrib/bash-completion/kor"
  [ "$(complete -p kor)" = "complete -F _kor kor" ] || fail "kor is not completed by _kor"
  # command line up to the cursor | expected candidates
  while IFS='|' read -r words want; do
    read -r -a COMP_WORDS <<<"$words"
    [[ $words == *" " ]] && COMP_WORDS+=("")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    _kor
    got="${COMPREPLY[*]}"
    [ "$got" = "$want" ] || fail "completing '$words': got '$got', want '$want'"
  done <<'ROWS'
kor up|upgrade
kor -v upgrade v|validate
kor upgrade |activate validate test
kor get|getpartset getrh
kor getpartset |0 1 2 active
kor getrh a|active
kor verify S|SAFESET SET1 SET2
kor install rel.velk |-1 0 1 2
kor -cf|-cfg= -cfgbak=
kor partinfo 4 POOL 0x100 -p|-product= -platform= -pn=
kor velkinfo x.velk -al|-all
kor info -noa|-noactivate
ROWS
}

check_uboot() {
  local script="$src/contrib/u-boot/kor-boot.cmd" w
  for w in 'KORSET=SAFESET' 'KORSET=SET${korset}' '0x1ff' 'mmc write'; do
    grep -qF "$w" "$script" || fail "kor-boot.cmd lacks '$w'"
  done
  have mkimage || { echo "mkimage missing: kor-boot.cmd not compiled"; exit 77; }
  mkimage -A arm -T script -C none -n "kor boot" -d "$script" "$work/kor-boot.scr" >/dev/null ||
    fail "mkimage could not compile kor-boot.cmd"
  mkimage -l "$work/kor-boot.scr" | grep -q 'ARM Linux Script' || fail "kor-boot.scr is no ARM script"
}

check_systemd() {
  local unit="$src/contrib/systemd/kor-validate.service" copy="$work/kor-validate.service"
  grep -qx 'Type=oneshot' "$unit" || fail "kor-validate.service is not a oneshot"
  grep -qx 'ExecStart=/usr/sbin/kor upgrade validate' "$unit" || fail "ExecStart is not kor upgrade validate"
  have systemd-analyze || { echo "systemd-analyze missing: only the keys checked"; return; }
  # verify wants an executable behind ExecStart: the shell stands in for kor.
  sed "s|/usr/sbin/kor|$(command -v bash)|" "$unit" >"$copy"
  lint systemd-analyze verify --man=no "$copy"
}

case $check in
  man) check_man ;;
  completion) check_completion ;;
  uboot) check_uboot ;;
  systemd) check_systemd ;;
  *) echo "unknown check $check"; exit 1 ;;
esac
[ $fails -eq 0 ] || exit 1
echo "$check: passed"
