#!/usr/bin/env bash
# The installed bash completion offers every word of lumstoragectl's tables
# (the subcommands, the words of pvr and fd, the open flags) and the
# program's command names, short and long.
# shellcheck source=tests/install/lib.sh disable=SC2154  # paths.sh sets the places
. "$(dirname "$0")/lib.sh" "$1"

comp="$root$(full "$datadir" "$prefix")/bash-completion/completions/lumstoragectl"
ctl="$root$(full "$bindir" "$prefix")/lumstoragectl"
LD_LIBRARY_PATH="$root$(full "$libdir" "$prefix")"
export LD_LIBRARY_PATH

# The first string of each row of table $2 in tools/src/$1.
table_words() {
  awk -v t="$2" 'index($0, t "[] = {") { on = 1; next } on && /^};/ { exit } on' "$source_dir/tools/src/$1" |
    grep -o '{"[^"]*"' | cut -c3- | tr -d '"'
}

# What the completion offers when the words after the program are "$@", the
# last one being completed.
offers() {
  bash -c '. "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _lumstoragectl; printf "%s\n" "${COMPREPLY[@]}"' \
    "$comp" "$ctl" "$@"
}

# Fails unless the completion of "$2..." offers every word of $1.
expect_offered() {
  local words=$1 offered w missing=""
  shift
  offered=$(offers "$@")
  for w in $words; do
    grep -qxF -- "$w" <<<"$offered" || missing+=" $w"
  done
  [ -z "$missing" ] || fail "completing '$*' does not offer:$missing"
}

# The names of the command line's rows under parent $1 (nullptr: the
# subcommands).
row_names() {
  awk 'index($0, "kSubRows[] = {") { on = 1; next } on && /^};/ { exit } on' "$source_dir/tools/src/ctl_cli.cpp" |
    grep -o "{$1, \"[^\"]*\"" | sed 's/.*, "//; s/"$//'
}

subcommands=$(row_names nullptr) || true
[ -n "$subcommands" ] || fail "no subcommands read from tools/src/ctl_cli.cpp"
expect_offered "$subcommands" ""
expect_offered "$(row_names '"pvr"')" pvr ""
expect_offered "$(row_names '"fd"')" --json fd ""
expect_offered "$(table_words wire/file_requests.cpp kOpenFlags | sed 's/^/O_RDWR|O_/')" fd open /tmp "O_RDWR|"
expect_offered "dev-mount" dev-mou
expect_offered "STORAGE_DEV_MOUNT STORAGE_DEV_UMOUNT" --socket /x STORAGE_DEV_
expect_offered "--no-tags" ls /mnt --no
expect_offered "--format" pvr mark sdb --f
echo "completion: $(wc -w <<<"$subcommands") subcommands and the words of pvr, fd and the open flags offered"
