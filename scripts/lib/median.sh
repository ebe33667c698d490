# shellcheck shell=bash
# Sourced: median reads one number a line and prints their median (the mean of the two middle
# ones for an even count).
median() { sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
