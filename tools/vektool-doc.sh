#!/usr/bin/env bash
# vektool-doc.sh OUT_DIR VERSION -- VEKTOOL [ARGS...]
#
# Writes OUT_DIR/vektool.1, the manual page, and OUT_DIR/vektool.bash, the
# bash completion, from the program's own help: "vektool --help", then
# "vektool CMD --help" for every command it lists and "vektool CMD SUB
# --help" for every subcommand those list. Nothing about a command is
# written here, so a command added to the program appears in both without
# an edit, and the page says what --help says.
#
# How the help texts read (tools/VekTool.cpp prints them): blocks parted by
# blank lines; a block starting "usage: " gives the synopsis; a block whose
# lines are indented by two blanks, perhaps under a title line ending in
# ":", is a list of "TERM  TEXT" items (options, or one line per command);
# any other block is prose.
set -euo pipefail
out=$1
version=$2
shift 2
[ "${1:-}" = -- ] && shift
run=("$@")

die() { echo "vektool-doc.sh: $*" >&2; exit 1; }

helptext() {  # helptext WORDS...: the help of "vektool WORDS --help"
  local text
  text=$("${run[@]}" "$@" --help) || die "\"vektool $* --help\" failed"
  [ -n "$text" ] || die "\"vektool $* --help\" printed nothing"
  printf '%s\n' "$text"
}

# Renders a help text as man(7) source.
#   mode=usage  only the usage block, as synopsis lines
#   mode=text   every other block; lists whose first item starts with a
#               word of skip are left out (the lists of commands and of
#               subcommands: each has its own section)
#   mode=exit   the "exit codes:" line as a list
# path is the command's words, set in bold in the synopsis.
render() {
  awk -v mode="$1" -v skip=" $2 " -v path="$3" '
    function esc(s) {
      gsub(/\\/, "\\e", s)
      gsub(/-/, "\\-", s)
      if (s ~ /^[.\047]/) s = "\\&" s
      return s
    }
    function usage(s, e,   k, t, lead) {
      for (k = s; k <= e; k++) {
        t = lines[k]
        sub(/^usage: */, "", t)
        sub(/^ +/, "", t)
        lead = "vektool" (path == "" ? "" : " " path)
        if (index(t, lead) == 1) {
          printf "\\fB%s\\fR%s\n", esc(lead), esc(substr(t, length(lead) + 1))
        } else {
          print esc(t)
        }
        if (k < e) print ".br"
      }
    }
    function item(t,   term, text, at) {
      sub(/^ +/, "", t)
      if (match(t, /  +/)) {
        term = substr(t, 1, RSTART - 1)
        text = substr(t, RSTART + RLENGTH)
      } else {
        term = t
        text = ""
      }
      print ".TP"
      printf "\\fB%s\\fR\n", esc(term)
      if (text != "") print esc(text)
    }
    function block(s, e,   k, first, w, islist) {
      if (lines[s] ~ /^usage: /) {
        if (mode == "usage") usage(s, e)
        return
      }
      if (mode != "text") return
      first = s
      if (lines[s] ~ /^[^ ].*:$/ && e > s) first = s + 1
      islist = 1
      for (k = first; k <= e; k++) if (lines[k] !~ /^  +[^ ]/) islist = 0
      if (islist) {
        split(lines[first], w, " ")
        if (index(skip, " " w[1] " ")) return
        if (first > s) printf ".PP\n%s\n", esc(lines[s])
        for (k = first; k <= e; k++) item(lines[k])
        return
      }
      # Prose is filled, but a line that ends a sentence or a clause ends
      # its line on the page too, and so does a lead line followed by a
      # new sentence (the notes: a summary, then the explanation).
      print ".PP"
      for (k = s; k <= e; k++) {
        if (lines[k] ~ /^exit codes:/) continue
        print esc(lines[k])
        if (k < e && (lines[k] ~ /[.:;)]$/ || (k == s && lines[k + 1] ~ /^[A-Z]/))) print ".br"
      }
    }
    { lines[++n] = $0 }
    END {
      if (mode == "exit") {
        for (k = 1; k <= n; k++) {
          if (lines[k] !~ /^exit codes: */) continue
          t = lines[k]
          sub(/^exit codes: */, "", t)
          # "0 done, 1 not found, 2 usage, file or data error"
          while (t != "") {
            if (match(t, /, [0-9]+ /)) {
              part = substr(t, 1, RSTART - 1)
              t = substr(t, RSTART + 2)
            } else {
              part = t
              t = ""
            }
            split(part, w, " ")
            print ".TP"
            print w[1]
            print esc(substr(part, length(w[1]) + 2))
          }
        }
        exit
      }
      i = 1
      while (i <= n) {
        while (i <= n && lines[i] ~ /^[ \t]*$/) i++
        if (i > n) break
        s = i
        while (i <= n && lines[i] !~ /^[ \t]*$/) i++
        block(s, i - 1)
      }
    }'
}

# The options a command's help lists ("-w, --wrap COLS": -w and --wrap),
# and those of them that take a value, as two lines.
options_of() {
  awk '
    /^  +-/ {
      t = $0
      sub(/^ +/, "", t)
      if (match(t, /  +/)) t = substr(t, 1, RSTART - 1)
      n = split(t, w, /[ ,=]+/)
      value = 0
      for (k = 1; k <= n; k++) if (w[k] != "" && w[k] !~ /^-/) value = 1
      for (k = 1; k <= n; k++) {
        if (w[k] !~ /^-/) continue
        if (!(w[k] in seen)) { seen[w[k]] = 1; all = all " " w[k] }
        if (value) vals = vals " " w[k]
      }
    }
    END {
      if (!("-h" in seen)) all = all " -h"
      if (!("--help" in seen)) all = all " --help"
      sub(/^ /, "", all)
      sub(/^ /, "", vals)
      print all
      print vals
    }'
}

top=$(helptext)
mapfile -t cmds < <(printf '%s\n' "$top" |
  awk '/^commands:$/ { f = 1; next } f && /^$/ { exit } f && /^  [^ ]/ { print $1 }' | awk '!seen[$0]++')
[ ${#cmds[@]} -gt 0 ] || die "no commands in \"vektool --help\""

man=$out/vektool.1.tmp
comp=$out/vektool.bash.tmp
{
  printf '.\\" Generated from the --help texts of vektool %s: edit those, not this.\n' "$version"
  printf '.TH VEKTOOL 1 "" "BaseLib %s" "User Commands"\n' "$version"
  # Left-aligned and unhyphenated: the text is full of names and options.
  printf '.ad l\n.nh\n'
  printf '.SH NAME\nvektool \\- the command-line program of the BaseLib runtime library\n'
  printf '.SH SYNOPSIS\n'
  printf '%s\n' "$top" | render usage "" ""
  printf '.SH DESCRIPTION\n'
  printf '%s\n' "$top" | render text "${cmds[*]}" ""
  printf '.SH COMMANDS\n'
} >"$man"

cases=""
for cmd in "${cmds[@]}"; do
  fam=$(helptext "$cmd")
  subs=()
  for sub in $(printf '%s\n' "$fam" | awk -v c="$cmd" '$1 == c && /^  [^ ]/ && $2 ~ /^[a-z][a-z0-9_-]*$/ { print $2 }' | awk '!seen[$0]++'); do
    # A word after the command is a subcommand when it answers --help
    # itself (an operand spelled in lower case would not).
    if "${run[@]}" "$cmd" "$sub" --help >/dev/null 2>&1; then
      subs+=("$sub")
    fi
  done
  # A family's lists of its subcommands are left out (each has its own
  # section); a single command's lists all stay.
  skip=""
  [ ${#subs[@]} -eq 0 ] || skip="$cmd ${subs[*]}"
  {
    printf '.SS %s\n' "$cmd"
    printf '%s\n' "$fam" | render usage "" "$cmd"
    printf '%s\n' "$fam" | render text "$skip" "$cmd"
  } >>"$man"
  if [ ${#subs[@]} -eq 0 ]; then
    { read -r all; read -r vals || true; } < <(printf '%s\n' "$fam" | options_of)
    cases+="        $cmd) first=2 opts=\"$all\" vals=\"$vals\" ;;"$'\n'
    continue
  fi
  cases+="        $cmd)"$'\n'
  cases+="            if ((COMP_CWORD == 2)); then"$'\n'
  cases+="                COMPREPLY=(\$(compgen -W \"${subs[*]} --help\" -- \"\$cur\"))"$'\n'
  cases+="                return 0"$'\n'
  cases+="            fi"$'\n'
  cases+="            case \${COMP_WORDS[2]} in"$'\n'
  for sub in "${subs[@]}"; do
    leaf=$(helptext "$cmd" "$sub")
    {
      printf '.SS %s %s\n' "$cmd" "$sub"
      printf '%s\n' "$leaf" | render usage "" "$cmd $sub"
      printf '%s\n' "$leaf" | render text "" "$cmd $sub"
    } >>"$man"
    { read -r all; read -r vals || true; } < <(printf '%s\n' "$leaf" | options_of)
    cases+="                $sub) first=3 opts=\"$all\" vals=\"$vals\" ;;"$'\n'
  done
  cases+="                *) return 0 ;;"$'\n'
  cases+="            esac ;;"$'\n'
done

{
  printf '.SH EXIT STATUS\n'
  printf '%s\n' "$top" | render exit "" ""
  printf '.SH SEE ALSO\n'
  printf 'The BaseLib README; \\fBvektool info\\fR shows where the library and its configuration files are.\n'
} >>"$man"

cat >"$comp" <<EOF
# bash completion for vektool $version, generated from its --help texts.
_vektool() {
    local cur=\${COMP_WORDS[COMP_CWORD]} first opts vals i w
    COMPREPLY=()
    if ((COMP_CWORD == 1)); then
        COMPREPLY=(\$(compgen -W "${cmds[*]} --help --version" -- "\$cur"))
        return 0
    fi
    case \${COMP_WORDS[1]} in
$cases        *) return 0 ;;
    esac
    # Options come before the operands: once an operand or "--" is there,
    # only file names are offered.
    for ((i = first; i < COMP_CWORD; i++)); do
        w=\${COMP_WORDS[i]}
        if [[ \$w == -- || \$w == - || \$w != -* ]]; then
            return 0
        fi
        if [[ " \$vals " == *" \$w "* ]]; then
            ((i++))
        fi
    done
    if [[ \$cur == -* ]]; then
        COMPREPLY=(\$(compgen -W "\$opts" -- "\$cur"))
    fi
    return 0
}
complete -o bashdefault -o default -F _vektool vektool
EOF

mv "$man" "$out/vektool.1"
mv "$comp" "$out/vektool.bash"
