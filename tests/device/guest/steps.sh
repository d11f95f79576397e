# Helpers for the steps of one boot. The device suite reads the console:
# every line of a step is marked with the step's name.

# kor_step NAME 'COMMAND': runs the shell command, then prints its output
# and exit status.
kor_step() {
  echo "KOR-RUN[$1] $2"
  sh -c "$2" >/tmp/step.out 2>&1
  local rc=$?
  sed "s/^/KOR-OUT[$1] /" /tmp/step.out
  echo "KOR-RC[$1] $rc"
}

# The power goes: the suite kills the machine when it reads this line.
kor_hang() {
  echo "KOR-HANG"
  while :; do sleep 60; done
}
