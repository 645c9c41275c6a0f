#!/bin/sh
# Runs a test program of the views on an X server of its own (xvfb-run), with the Cairo
# renderer (no GL needed) and GTK's in-process accessibility context, which the tests
# read through GTK's accessibility test functions (the screen-reader test sets it back
# for the picker it starts). Listing the tests needs no display. The search for a free
# display starts at a number of this process's own, so that runs of other build trees
# at the same moment do not race for one.
case "$*" in
*--gtest_list_tests*) exec "$@" ;;
esac
exec xvfb-run -a -n $((100 + $$ % 800)) -s "-screen 0 1280x1024x24" \
  env GSK_RENDERER=cairo GTK_A11Y=test GDK_BACKEND=x11 "$@"
