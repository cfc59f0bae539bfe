#!/bin/sh
# The same seed gives the same script, another one another.
#   same_script.sh KAV-CHAOS
set -eu
first=$("$1" --seed 42 --lives 50 --script)
test -n "$first"
test "$first" = "$("$1" --seed 42 --lives 50 --script)"
test "$first" != "$("$1" --seed 43 --lives 50 --script)"
# A life alone is the same as among others.
alone=$("$1" --seed 42 --life 17 --script)
case $first in
  *"$alone"*) ;;
  *) echo "life 17 differs when it is printed alone" && exit 1 ;;
esac
