#!/usr/bin/python3
# ferryhold-picker as a screen reader sees it: run on the fixture machine under an X
# server and a session bus of their own, read through the AT-SPI bus, driven with keys
# sent by xdotool.
#   picker_accessibility.py FERRYHOLD_PICKER MAKE_PICKER_FIXTURE
import os
import shutil
import subprocess
import sys
import tempfile
import time

import pyatspi

PICKER, MAKE_FIXTURE = sys.argv[1:3]
DISKS = ["Fixture Disk A, 1.07 GB disk", "vfb, 2.15 GB disk", "vfc, 537 MB disk"]
VOLUMES = ["System on Fixture Disk A", "Locked on Fixture Disk A", "Empty on vfb", "Archive on vfb", "Spare on vfc"]
failures = []


def check(condition, what):
    if not condition:
        failures.append(what)
        print("FAILED: " + what, file=sys.stderr)


def application(pid, deadline):
    while time.time() < deadline:
        for app in pyatspi.Registry.getDesktop(0):
            try:
                if app is not None and app.get_process_id() == pid:
                    return app
            except Exception:
                pass
        time.sleep(0.2)
    return None


def elements(node, found, depth=0):
    """(role name, name, description) of every accessible below `node`."""
    if node is None or depth > 40:
        return found
    try:
        found.append((node.getRoleName(), node.name or "", node.description or ""))
        for child in node:
            elements(child, found, depth + 1)
    except Exception:
        pass
    return found


def wait_for(app, predicate, deadline):
    seen = []
    while time.time() < deadline:
        seen = elements(app, [])
        if predicate(seen):
            return seen
        time.sleep(0.2)
    return seen


def key(*names):
    subprocess.run(["xdotool", "search", "--sync", "--name", "^Choose a Volume$", "windowfocus", "--sync"],
                   check=True, timeout=20, stdout=subprocess.DEVNULL)
    for name in names:
        subprocess.run(["xdotool", "key", name], check=True, timeout=20)
        time.sleep(0.3)


def run(env, arguments, keys, expect_status, expect_out, inspect=None):
    picker = subprocess.Popen([PICKER] + arguments, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        deadline = time.time() + 30
        app = application(picker.pid, deadline)
        check(app is not None, "%s: the picker is not on the accessibility bus" % arguments)
        if app is None:
            return
        if inspect:
            inspect(app, deadline)
        key(*keys)
        out, err = picker.communicate(timeout=20)
        check(picker.returncode == expect_status, "%s: exit status %s, not %s (%s)" %
              (arguments, picker.returncode, expect_status, err.strip()))
        check(out == expect_out, "%s: printed %r, not %r" % (arguments, out, expect_out))
    finally:
        if picker.poll() is None:
            picker.kill()
            picker.wait()


def every_disk_and_volume(app, deadline):
    seen = wait_for(app, lambda s: all(any(n == name for _, n, _ in s) for name in DISKS + VOLUMES), deadline)
    # A disk's heading is a label with the same text as its group: the group is looked for.
    roles = {}
    for role, n, description in seen:
        roles.setdefault(n, {})[role] = description
    for disk in DISKS:
        found = roles.get(disk, {})
        check("panel" in found or "grouping" in found, "disk %r is on the bus as %r, no group" % (disk, list(found)))
    for volume in VOLUMES:
        found = roles.get(volume, {})
        check("tree item" in found or "list item" in found, "volume %r is on the bus as %r" % (volume, list(found)))
    locked = "".join(roles.get(VOLUMES[1], {}).values())
    check(locked.endswith("Cannot be chosen: The volume is mounted read-only."),
          "the read-only volume's description is %r" % locked)


def message_announced(app, deadline):
    every_disk_and_volume(app, deadline)
    # Right twice reaches the read-only volume; Return shows why it cannot be chosen, as an
    # alert that a screen reader announces.
    key("Right", "Right", "Return")
    message = "The volume is mounted read-only."
    seen = wait_for(app, lambda s: any(message in (n, d) for _, n, d in s), time.time() + 10)
    roles = [role for role, n, d in seen if message in (n, d)]
    check(any(role in ("alert", "notification") for role in roles), "the message shows with roles %r" % roles)


def main():
    work = tempfile.mkdtemp(prefix="ferryhold-picker-")
    try:
        made = subprocess.run([MAKE_FIXTURE, os.path.join(work, "machine")], capture_output=True, text=True,
                              check=True, timeout=60)
        env = dict(os.environ, GSK_RENDERER="cairo", GDK_BACKEND="x11")
        env.pop("GTK_A11Y", None)
        env.update(line.split("=", 1) for line in made.stdout.splitlines())
        system = os.path.join(work, "machine", "volumes", "System")
        # Before any window: a mount table that cannot be read, and no display, each
        # exit 1 with one line saying so.
        missing = os.path.join(work, "no-such-table")
        for extra, drop, said in ((dict(FERRYHOLD_MOUNTINFO=missing), None,
                                   "ferryhold-picker: the mount table cannot be read: %s: No such file or directory\n" % missing),
                                  ({}, "DISPLAY", "ferryhold-picker: no display to show the window on\n")):
            failed_env = dict(env, **extra)
            if drop:
                failed_env.pop(drop, None)
            done = subprocess.run([PICKER], env=failed_env, capture_output=True, text=True, timeout=30)
            check((done.returncode, done.stdout, done.stderr) == (1, "", said),
                  "without %s: %r" % (drop or "a mount table", (done.returncode, done.stdout, done.stderr)))
        # The outline: every disk and volume is there with its name; Down selects the
        # first volume and Return chooses it, printing its mount point.
        run(env, ["--target", "10.7"], ["Down", "Return"], 0, system + "\n", every_disk_and_volume)
        # The strip: a volume that cannot be chosen says why; Escape closes the message,
        # a second Escape the window, choosing nothing.
        run(env, ["--view", "strip", "--target", "10.7"], ["Escape", "Escape"], 1, "", message_announced)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    if failures:
        sys.exit(1)
    print("ferryhold-picker: every disk and volume on the accessibility bus; keys choose and cancel")


main()
