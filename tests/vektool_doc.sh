#!/usr/bin/env bash
# The manual page and the bash completion generated from --help texts
# (tools/vektool-doc.sh):
#   1. from a stand-in program whose help has what breaks such generators:
#      lines starting with "." or "'", backslashes, an option without a
#      short form, options with values, a lower-case operand that is no
#      subcommand; the page must format without a warning and show the
#      text as written, and the completion must follow the argument rule
#      (options before the first operand or "--");
#   2. from the real vektool: its page formats without a warning.
#   vektool_doc.sh GENERATOR VEKTOOL WORK_DIR
set -euo pipefail
gen=$1
real=$2
work=$3
rm -rf "$work"
mkdir -p "$work"
fails=0
check() {  # check WHAT GOT WANT
  if [ "$2" != "$3" ]; then
    echo "FAIL: $1: got \"$2\", want \"$3\""
    fails=$((fails + 1))
  fi
}
lint() {  # lint PAGE: groff's warnings, if any
  groff -man -ww -z "$1" 2>&1
}

cat >"$work/fake" <<'EOF'
#!/usr/bin/env bash
case "$*" in
  --help) cat <<'T' ;;
usage: vektool COMMAND [SUBCOMMAND] [OPTIONS] [--] [OPERANDS]
       vektool COMMAND --help | --help | --version

commands:
  fam get [--default VALUE] FILE   print a value
  fam put FILE                     store one
  solo mode [-q] FILE              one command, a literal operand

.dot files are read as any other; 'quotes' stay.
exit codes: 0 done, 1 not found, 2 usage, file or data error
T
  "fam --help") cat <<'T' ;;
usage: vektool fam get|put ...

a family

  fam get [--default VALUE] FILE   print a value
  fam put FILE                     store one
T
  "fam get --help") cat <<'T' ;;
usage: vektool fam get [--default VALUE] FILE

print a value

options:
      --default VALUE    the answer when absent
  -h, --help             this help

where it departs from the library: C:\path\name is taken as written
.ini files only
T
  "fam put --help") printf 'usage: vektool fam put FILE\n\nstore one\n' ;;
  "solo --help") cat <<'T' ;;
usage: vektool solo mode [-q] FILE

one command, a literal operand

options:
  -q, --quiet            say nothing
  -w, --wrap=COLS        lines of COLS
  -h, --help             this help

examples:
  solo mode in.txt       the mode of in.txt
T
  *) echo "usage error" >&2; exit 2 ;;
esac
EOF
chmod +x "$work/fake"
bash "$gen" "$work" 9.9.9 -- "$work/fake"

# ---- the page ----
warn=$(lint "$work/vektool.1")
check "page warnings" "$warn" ""
text=$(groff -man -Tutf8 -rLL=200n "$work/vektool.1" 2>/dev/null | sed 's/\x1b\[[0-9;]*m//g; s/.\x08//g')
for want in '.dot files are read as any other;' "'quotes' stay." 'C:\path\name is taken as written' \
            '.ini files only' 'vektool fam get [--default VALUE] FILE' '--default VALUE' \
            'the answer when absent' 'vektool solo mode [-q] FILE' '-w, --wrap=COLS' \
            'the mode of in.txt' 'BaseLib 9.9.9'; do
  case "$text" in
    *"$want"*) ;;
    *) echo "FAIL: the page lacks \"$want\""; fails=$((fails + 1)) ;;
  esac
done
sections=$(grep '^\.SS ' "$work/vektool.1" | cut -c5- | tr '\n' ',')
check "page sections" "$sections" "fam,fam get,fam put,solo,"
check "exit status items" "$(sed -n '/^\.SH EXIT STATUS/,/^\.SH/p' "$work/vektool.1" | grep -c '^\.TP')" 3

# ---- the completion ----
complete_at() {  # complete_at WORD...: what the completion offers for the last word
  bash -c 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _vektool; echo "${COMPREPLY[*]}"' \
    _ "$work/vektool.bash" "$@"
}
check "commands" "$(complete_at vektool '')" "fam solo --help --version"
check "subcommands" "$(complete_at vektool fam '')" "get put --help"
check "a literal operand is no subcommand" "$(complete_at vektool solo m)" ""
check "options" "$(complete_at vektool fam get --)" "--default --help"
check "options of a command" "$(complete_at vektool solo -)" "-q --quiet -w --wrap -h --help"
check "after an option's value" "$(complete_at vektool fam get --default x --h)" "--help"
check "after the first operand" "$(complete_at vektool fam get f.ini --h)" ""
check "after --" "$(complete_at vektool solo -- -)" ""
check "standard input is an operand" "$(complete_at vektool solo - -)" ""
check "unknown command" "$(complete_at vektool nope -)" ""

# ---- the real program ----
bash "$gen" "$work" 0 -- "$real"
check "vektool page warnings" "$(lint "$work/vektool.1")" ""

[ $fails = 0 ] || { echo "$fails failed"; exit 1; }
echo "manual page and completion: all cases passed"
