#!/bin/sh
# Writes a help2man include with one section per subcommand of PROGRAM, from each one's --help.
# Usage: man-commands.sh PROGRAM OUTPUT
program=$1
out=$2
{
  echo '[COMMANDS]'
  for c in $("$program" --help | awk '/^Subcommands:/ {s = 1; next} s && /^  [a-z]/ {print $1}'); do
    echo ".SS $c"
    echo '.nf'
    "$program" "$c" --help | sed -e 's/\\/\\e/g' -e 's/^\([.'\'']\)/\\\&\1/'
    echo '.fi'
  done
} >"$out"
