#!/bin/sh
# Runs the views' test program on an X server of its own (xvfb-run), with the Cairo
# renderer (no GL needed) and GTK's in-process accessibility context, which the tests
# read through GTK's accessibility test functions. Listing the tests needs no display.
case "$*" in
*--gtest_list_tests*) exec "$@" ;;
esac
exec xvfb-run -a -s "-screen 0 1280x1024x24" env GSK_RENDERER=cairo GTK_A11Y=test GDK_BACKEND=x11 "$@"
