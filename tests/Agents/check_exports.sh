#!/bin/sh
# Each agent library must define exactly one dynamic symbol: sendEmail.
status=0
for lib in "$@"; do
  symbols=$(nm -D --defined-only "$lib" | awk '{print $NF}' | sort | tr '\n' ' ')
  if [ "$symbols" != "sendEmail " ]; then
    echo "$lib defines: $symbols"
    status=1
  else
    echo "$lib: sendEmail only"
  fi
done
exit $status
